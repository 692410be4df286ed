#include <CoreMedia/CMSampleBuffer.h>

#include <CoreFoundation/CFRef.h>
#include <CoreMedia/Memory/CMMemoryCache.h>
#include <runtime/NSObject.h>

#include <cmath>
#include <limits>
#include <new>

struct OpaqueCMSampleBuffer final : public NSObject {
 public:
  OpaqueCMSampleBuffer(CVImageBufferRef image, CMBlockBufferRef data, CMFormatDescriptionRef description,
                       const CMTime& presentationTime, const CMTime& length, CMItemCount count) noexcept
      : imageBuffer(CFRef<CVImageBufferRef>::retain(image)),
        dataBuffer(CFRef<CMBlockBufferRef>::retain(data)),
        formatDescription(CFRef<CMFormatDescriptionRef>::retain(description)),
        presentationTimeStamp(presentationTime),
        duration(length),
        numSamples(count) {}

  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return CMMemoryCache::allocate(size); }
  static void operator delete(void* memory, std::size_t size) noexcept { CMMemoryCache::free(memory, size); }

  const CFRef<CVImageBufferRef> imageBuffer;
  const CFRef<CMBlockBufferRef> dataBuffer;
  const CFRef<CMFormatDescriptionRef> formatDescription;
  const CMTime presentationTimeStamp;
  const CMTime duration;
  const CMItemCount numSamples;
};

namespace {

constexpr UInt32 LargestPlaneCount = 1024;
constexpr std::size_t Alignment = 16;

/// What `numSamples` frames last; invalid when the description does not give a usable sample rate.
CMTime audioDuration(CMFormatDescriptionRef description, CMItemCount numSamples) noexcept {
  const AudioStreamBasicDescription* audio = CMAudioFormatDescriptionGetStreamBasicDescription(description);
  if (!audio || !(audio->mSampleRate > 0)) return kCMTimeInvalid;
  const double rate = audio->mSampleRate;
  if (rate <= std::numeric_limits<CMTimeScale>::max() && rate == std::floor(rate)) {
    return CMTimeMake(numSamples, static_cast<CMTimeScale>(rate));
  }
  constexpr CMTimeScale nanoseconds = 1'000'000'000;
  return CMTimeMakeWithSeconds(static_cast<double>(numSamples) / rate, nanoseconds);
}

/// How a sample's bytes divide into audio buffers.
struct BufferShape {
  UInt32 planeCount = 0;
  UInt32 channelsPerPlane = 0;

  std::size_t listSize() const noexcept {
    return offsetof(AudioBufferList, mBuffers) + planeCount * sizeof(AudioBuffer);
  }
};

bool shapeOf(CMFormatDescriptionRef description, BufferShape* shapeOut) noexcept {
  const AudioStreamBasicDescription* audio = CMAudioFormatDescriptionGetStreamBasicDescription(description);
  if (!audio || audio->mChannelsPerFrame == 0) return false;
  if (audio->mFormatFlags & kAudioFormatFlagIsNonInterleaved) {
    *shapeOut = {.planeCount = audio->mChannelsPerFrame, .channelsPerPlane = 1};
  } else {
    *shapeOut = {.planeCount = 1, .channelsPerPlane = audio->mChannelsPerFrame};
  }
  return shapeOut->planeCount <= LargestPlaneCount;
}

/// True when the planes can be used where they lie.
bool isUsableInPlace(CMBlockBufferRef data, std::size_t planeLength, UInt32 planeCount, uint32_t flags) noexcept {
  if (!CMBlockBufferIsRangeContiguous(data, 0, 0)) return false;
  if (!(flags & kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment)) return true;
  char* first = nullptr;
  CMBlockBufferGetDataPointer(data, 0, nullptr, nullptr, &first);
  const bool planesFollowAligned = planeCount == 1 || planeLength % Alignment == 0;
  return reinterpret_cast<std::uintptr_t>(first) % Alignment == 0 && planesFollowAligned;
}

/// A block that holds the planes in order, each on 16 bytes, `stride` bytes apart. Null when there is no memory.
CFRef<CMBlockBufferRef> copyPlanes(CMBlockBufferRef data, std::size_t planeLength, UInt32 planeCount,
                                   std::size_t stride) noexcept {
  CMBlockBufferRef made = nullptr;
  const std::size_t size = stride * planeCount;
  if (CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, nullptr, size, kCFAllocatorDefault, nullptr, 0, size, 0,
                                         &made) != kCMBlockBufferNoErr) {
    return {};
  }
  auto block = CFRef<CMBlockBufferRef>::adopt(made);
  char* first = nullptr;
  CMBlockBufferGetDataPointer(made, 0, nullptr, nullptr, &first);
  for (UInt32 plane = 0; plane < planeCount; ++plane) {
    CMBlockBufferCopyDataBytes(data, plane * planeLength, planeLength, first + plane * stride);
  }
  return block;
}

void fillList(AudioBufferList* list, const BufferShape& shape, char* data, std::size_t planeLength,
              std::size_t stride) noexcept {
  list->mNumberBuffers = shape.planeCount;
  AudioBuffer* buffers = list->mBuffers;
  for (UInt32 plane = 0; plane < shape.planeCount; ++plane) {
    buffers[plane] = {.mNumberChannels = shape.channelsPerPlane,
                      .mDataByteSize = static_cast<UInt32>(planeLength),
                      .mData = data ? data + plane * stride : nullptr};
  }
}

}  // namespace

OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef, CVImageBufferRef imageBuffer, Boolean, void*, void*,
                                            CMVideoFormatDescriptionRef formatDescription,
                                            const CMSampleTimingInfo* sampleTiming,
                                            CMSampleBufferRef* sampleBufferOut) {
  if (!sampleBufferOut) return kCMSampleBufferError_RequiredParameterMissing;
  *sampleBufferOut = nullptr;
  if (!sampleTiming) return kCMSampleBufferError_RequiredParameterMissing;
  *sampleBufferOut = new (std::nothrow)
      OpaqueCMSampleBuffer(imageBuffer, nullptr, formatDescription, sampleTiming->presentationTimeStamp,
                           sampleTiming->duration, imageBuffer ? 1 : 0);
  if (!*sampleBufferOut) return kCMSampleBufferError_AllocationFailed;
  return noErr;
}

OSStatus CMAudioSampleBufferCreateReadyWithPacketDescriptions(CFAllocatorRef, CMBlockBufferRef dataBuffer,
                                                              CMFormatDescriptionRef formatDescription,
                                                              CMItemCount numSamples, CMTime presentationTimeStamp,
                                                              const AudioStreamPacketDescription*,
                                                              CMSampleBufferRef* sampleBufferOut) {
  if (!sampleBufferOut) return kCMSampleBufferError_RequiredParameterMissing;
  *sampleBufferOut = nullptr;
  if (numSamples < 0) return kCMSampleBufferError_RequiredParameterMissing;
  *sampleBufferOut =
      new (std::nothrow) OpaqueCMSampleBuffer(nullptr, dataBuffer, formatDescription, presentationTimeStamp,
                                              audioDuration(formatDescription, numSamples), numSamples);
  if (!*sampleBufferOut) return kCMSampleBufferError_AllocationFailed;
  return noErr;
}

CMTime CMSampleBufferGetPresentationTimeStamp(CMSampleBufferRef sbuf) {
  return sbuf ? sbuf->presentationTimeStamp : kCMTimeInvalid;
}

CMTime CMSampleBufferGetDuration(CMSampleBufferRef sbuf) {
  return sbuf ? sbuf->duration : kCMTimeInvalid;
}

CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef sbuf) {
  return sbuf ? sbuf->numSamples : 0;
}

CVImageBufferRef CMSampleBufferGetImageBuffer(CMSampleBufferRef sbuf) {
  return sbuf ? sbuf->imageBuffer.get() : nullptr;
}

CMBlockBufferRef CMSampleBufferGetDataBuffer(CMSampleBufferRef sbuf) {
  return sbuf ? sbuf->dataBuffer.get() : nullptr;
}

CMFormatDescriptionRef CMSampleBufferGetFormatDescription(CMSampleBufferRef sbuf) {
  return sbuf ? sbuf->formatDescription.get() : nullptr;
}

OSStatus CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(CMSampleBufferRef sbuf,
                                                                 size_t* bufferListSizeNeededOut,
                                                                 AudioBufferList* bufferListOut, size_t bufferListSize,
                                                                 CFAllocatorRef, CFAllocatorRef, uint32_t flags,
                                                                 CMBlockBufferRef* blockBufferOut) {
  if (blockBufferOut) *blockBufferOut = nullptr;
  if (bufferListSizeNeededOut) *bufferListSizeNeededOut = 0;
  if (!sbuf) return kCMSampleBufferError_RequiredParameterMissing;
  if (bufferListOut ? !blockBufferOut : !bufferListSizeNeededOut) return kCMSampleBufferError_RequiredParameterMissing;

  BufferShape shape;
  if (!shapeOf(sbuf->formatDescription.get(), &shape)) return kCMSampleBufferError_InvalidMediaFormat;
  if (bufferListSizeNeededOut) *bufferListSizeNeededOut = shape.listSize();
  if (!bufferListOut) return noErr;
  if (bufferListSize < shape.listSize()) return kCMSampleBufferError_ArrayTooSmall;

  CFRef<CMBlockBufferRef> data = sbuf->dataBuffer;
  if (!data) return kCMSampleBufferError_RequiredParameterMissing;
  const std::size_t length = CMBlockBufferGetDataLength(data.get());
  const std::size_t planeLength = length / shape.planeCount;
  if (length % shape.planeCount != 0 || planeLength > std::numeric_limits<UInt32>::max()) {
    return kCMSampleBufferError_InvalidMediaFormat;
  }

  std::size_t stride = planeLength;
  if (length > 0 && !isUsableInPlace(data.get(), planeLength, shape.planeCount, flags)) {
    stride = (planeLength + Alignment - 1) / Alignment * Alignment;
    data = copyPlanes(data.get(), planeLength, shape.planeCount, stride);
    if (!data) return kCMSampleBufferError_AllocationFailed;
  }
  char* first = nullptr;  // stays null for a sample without bytes
  CMBlockBufferGetDataPointer(data.get(), 0, nullptr, nullptr, &first);
  fillList(bufferListOut, shape, first, planeLength, stride);
  *blockBufferOut = data.leak();
  return noErr;
}

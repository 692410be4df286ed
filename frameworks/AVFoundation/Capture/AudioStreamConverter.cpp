#include <AVFoundation/Capture/AudioStreamConverter.h>

#include <CoreAudio/SameStream.h>
#include <CoreMedia/Memory/CMMemoryCache.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

namespace {

/// What the input callback answers while the stream goes on but nothing more is there yet.
constexpr OSStatus NoInputYet = 0x77616974;  // 'wait'

/// A device's clock may be off by this much before its stream counts as interrupted.
constexpr double LargestJump = 0.05;

/// More than the converter holds back of what it was given, in frames of any destination.
constexpr UInt32 MostFramesOwed = 1024;

/// Minutes of sound: no device hands over that much at once, and what becomes of it can still be counted in 32 bits.
constexpr UInt32 MostFramesInChunk = 1u << 24;

bool isPlanar(const AudioStreamBasicDescription& stream) {
  return (stream.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
}

constexpr std::size_t MostPlanes = 8;

/// An AudioBufferList with room for every plane. Its own array has one element, on which the compiler may rely where it
/// sees the whole list.
struct PlaneList {
  UInt32 count;
  std::array<AudioBuffer, MostPlanes> buffers;
};
static_assert(offsetof(PlaneList, buffers) == offsetof(AudioBufferList, mBuffers));

/// The memory of one sample's sound, recycled: with the block buffer that is made of it, or here.
class SoundMemory {
 public:
  explicit SoundMemory(std::size_t size) noexcept
      : _size(size), _bytes(static_cast<char*>(CMMemoryCache::allocate(size))) {}
  ~SoundMemory() { CMMemoryCache::free(_bytes, _size); }
  SoundMemory(const SoundMemory&) = delete;
  SoundMemory& operator=(const SoundMemory&) = delete;

  char* bytes() const noexcept { return _bytes; }

  /// Over the first `dataLength` bytes; null when memory is short.
  CFRef<CMBlockBufferRef> makeBlock(std::size_t dataLength) {
    const CMBlockBufferCustomBlockSource source{
        0, nullptr, [](void*, void* bytes, std::size_t size) { CMMemoryCache::free(bytes, size); }, nullptr};
    CMBlockBufferRef block = nullptr;
    if (CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, _bytes, _size, kCFAllocatorDefault, &source, 0,
                                           dataLength, 0, &block) == kCMBlockBufferNoErr) {
      _bytes = nullptr;
    }
    return CFRef<CMBlockBufferRef>::adopt(block);
  }

 private:
  const std::size_t _size;
  char* _bytes;
};

CFRef<CMSampleBufferRef> makeSample(CMBlockBufferRef block, CMAudioFormatDescriptionRef format, UInt32 frames,
                                    CMTime time) {
  CMSampleBufferRef sample = nullptr;
  if (block) {
    CMAudioSampleBufferCreateReadyWithPacketDescriptions(kCFAllocatorDefault, block, format, CMItemCount{frames}, time,
                                                         nullptr, &sample);
  }
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

}  // namespace

AudioStreamConverter::AudioStreamConverter(const AudioStreamBasicDescription& destination) : _destination(destination) {
  const AudioChannelLayout stereo{kAudioChannelLayoutTag_Stereo, 0, 0};
  const bool isStereo = destination.mChannelsPerFrame == 2;
  CMAudioFormatDescriptionRef description = nullptr;
  const OSStatus status =
      CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &_destination, isStereo ? sizeof stereo : 0,
                                     isStereo ? &stereo : nullptr, 0, nullptr, nullptr, &description);
  if (status == kCMFormatDescriptionError_AllocationFailed) throw std::bad_alloc();
  _destinationFormat = CFRef<CMAudioFormatDescriptionRef>::adopt(description);
}

AudioStreamConverter::~AudioStreamConverter() {
  if (_converter) AudioConverterDispose(_converter);
}

CapturedSample AudioStreamConverter::convert(const hardware::AudioChunk& chunk) {
  CapturedSample sample;
  if (chunk.frameCount == 0) return sample;  // to the converter it would mean that the input has ended
  const bool isOfSource =
      _converter && isSameStream(_source, chunk.format->stream) && _sourceLayout == chunk.format->layout;
  if (!isOfSource || !follows(chunk)) sample.forgone = endStream();
  if (!isOfSource) sample.fate = makeConverter(*chunk.format);
  if (sample.fate == SampleFate::delivered) sample.fate = fill(chunk, sample);
  if (sample.fate != SampleFate::delivered) sample.forgone += endStream();
  return sample;
}

SampleFate AudioStreamConverter::fill(const hardware::AudioChunk& chunk, CapturedSample& sample) {
  if (chunk.frameCount > MostFramesInChunk) return SampleFate::notConverted;
  const double ratio = _destination.mSampleRate / _source.mSampleRate;
  const auto capacity = static_cast<UInt32>(std::ceil(chunk.frameCount * ratio)) + MostFramesOwed;
  const UInt32 planes = isPlanar(_destination) ? _destination.mChannelsPerFrame : 1;
  const std::size_t planeCapacity = std::size_t{capacity} * _destination.mBytesPerFrame;
  SoundMemory memory(planeCapacity * planes);
  if (!memory.bytes()) return SampleFate::noBuffer;

  PlaneList output{planes, {}};
  for (UInt32 plane = 0; plane < planes; ++plane) {
    output.buffers[plane] = {isPlanar(_destination) ? 1 : _destination.mChannelsPerFrame,
                             static_cast<UInt32>(planeCapacity), memory.bytes() + plane * planeCapacity};
  }

  _input = &chunk;
  UInt32 produced = capacity;
  const OSStatus status =
      AudioConverterFillComplexBuffer(_converter, &AudioStreamConverter::supplyInput, this, &produced,
                                      reinterpret_cast<AudioBufferList*>(&output), nullptr);
  _input = nullptr;
  if (status != noErr && status != NoInputYet) return SampleFate::notConverted;

  if (produced > 0) {
    // Bring the planes together: in a sample they follow each other.
    const std::size_t planeLength = std::size_t{produced} * _destination.mBytesPerFrame;
    for (UInt32 plane = 1; plane < planes; ++plane) {
      std::memmove(memory.bytes() + plane * planeLength, memory.bytes() + plane * planeCapacity, planeLength);
    }
    sample.buffer = makeSample(memory.makeBlock(planeLength * planes).get(), _destinationFormat.get(), produced,
                               timeOfNextFrame(chunk));
    if (!sample.buffer) return SampleFate::noBuffer;
  }
  sample.framesOut = produced;
  _framesIn += chunk.frameCount;
  _framesOut += produced;
  _endOfLastChunk = CMTimeAdd(chunk.presentationTime,
                              CMTimeMake(chunk.frameCount, static_cast<int32_t>(std::lround(_source.mSampleRate))));
  return SampleFate::delivered;
}

SampleFate AudioStreamConverter::makeConverter(const hardware::AudioFormat& format) {
  if (_converter) AudioConverterDispose(std::exchange(_converter, nullptr));

  // Whether a format may be mixed with others says nothing about its samples.
  AudioStreamBasicDescription source = format.stream;
  source.mFormatFlags &= ~AudioFormatFlags{kAudioFormatFlagIsNonMixable};
  if (const OSStatus status = AudioConverterNew(&source, &_destination, &_converter); status != noErr) {
    _converter = nullptr;
    return status == kAudioConverterErr_UnspecifiedError ? SampleFate::noBuffer : SampleFate::notConverted;
  }
  if (format.layout != kAudioChannelLayoutTag_Unknown) {
    const AudioChannelLayout layout{format.layout, 0, 0};
    const OSStatus status =
        AudioConverterSetProperty(_converter, kAudioConverterInputChannelLayout, sizeof layout, &layout);
    if (status == kAudioConverterErr_UnspecifiedError) {  // no memory; the channels would be mixed otherwise than meant
      AudioConverterDispose(std::exchange(_converter, nullptr));
      return SampleFate::noBuffer;
    }
  }
  _source = format.stream;
  _sourceLayout = format.layout;
  return SampleFate::delivered;
}

bool AudioStreamConverter::follows(const hardware::AudioChunk& chunk) const {
  if (!CMTIME_IS_NUMERIC(_endOfLastChunk) || !CMTIME_IS_NUMERIC(chunk.presentationTime)) return true;
  return std::abs(CMTimeGetSeconds(chunk.presentationTime) - CMTimeGetSeconds(_endOfLastChunk)) <= LargestJump;
}

double AudioStreamConverter::framesOwed() const noexcept {
  if (_framesIn == 0) return 0;
  return static_cast<double>(_framesIn) / _source.mSampleRate * _destination.mSampleRate -
         static_cast<double>(_framesOut);
}

double AudioStreamConverter::endStream() {
  const double forgone = framesOwed();
  if (_converter) AudioConverterReset(_converter);
  _framesIn = 0;
  _framesOut = 0;
  _endOfLastChunk = kCMTimeInvalid;
  return forgone;
}

/// The next frame to come out lies before the chunk by what the converter still owed of earlier ones.
CMTime AudioStreamConverter::timeOfNextFrame(const hardware::AudioChunk& chunk) const {
  CMTime time = chunk.presentationTime;
  if (!CMTIME_IS_NUMERIC(time)) return time;
  // A time at the very end of what can be told stays as it is.
  CMTimeValue value = 0;
  const auto owed = std::llround(framesOwed() / _destination.mSampleRate * time.timescale);
  if (!__builtin_sub_overflow(time.value, owed, &value)) time.value = value;
  return time;
}

OSStatus AudioStreamConverter::supplyInput(AudioConverterRef, UInt32* packetCount, AudioBufferList* buffers,
                                           AudioStreamPacketDescription**, void* stream) {
  auto& self = *static_cast<AudioStreamConverter*>(stream);
  if (!self._input) {
    *packetCount = 0;
    return NoInputYet;
  }
  const hardware::AudioChunk& chunk = *std::exchange(self._input, nullptr);
  *packetCount = chunk.frameCount;
  buffers->mNumberBuffers = std::min(buffers->mNumberBuffers, chunk.buffers->mNumberBuffers);
  for (UInt32 i = 0; i < buffers->mNumberBuffers; ++i) buffers->mBuffers[i] = chunk.buffers->mBuffers[i];
  return noErr;
}

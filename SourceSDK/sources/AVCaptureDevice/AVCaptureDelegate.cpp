#include "AVCaptureDelegate.h"

#include <CoreAudio/SameStream.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreVideo/CVPixelBuffer.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "AVLog.h"

namespace {

std::int32_t truncated(double length) {
  constexpr double most = std::numeric_limits<std::int32_t>::max();
  if (length >= -most && length <= most) return static_cast<std::int32_t>(length);
  if (!std::isfinite(length)) return 0;
  return static_cast<std::int32_t>(length < 0 ? -most : most);
}

/// Width of a pixel divided by its height; 1 where the attachment does not say both, or says what no pixel can have.
float ratioOf(CFDictionaryRef ratio) {
  const auto* horizontal =
      static_cast<CFNumberRef>(CFDictionaryGetValue(ratio, kCVImageBufferPixelAspectRatioHorizontalSpacingKey));
  const auto* vertical =
      static_cast<CFNumberRef>(CFDictionaryGetValue(ratio, kCVImageBufferPixelAspectRatioVerticalSpacingKey));
  if (!horizontal || !vertical) return 1.0F;
  float width = 1.0F;
  float height = 1.0F;
  CFNumberGetValue(horizontal, kCFNumberFloat32Type, &width);
  CFNumberGetValue(vertical, kCFNumberFloat32Type, &height);
  const float shape = width / height;
  return std::isfinite(shape) && shape > 0 ? shape : 1.0F;
}

constexpr std::int32_t HostSampleRate = 44100;
constexpr std::int32_t HostChannels = 2;
constexpr std::int32_t HostBitsPerSample = 16;
constexpr std::uint32_t HostBytesPerFrame = 4;

constexpr AudioStreamBasicDescription HostDescription{
    .mSampleRate = HostSampleRate,
    .mFormatID = kAudioFormatLinearPCM,
    .mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked,
    .mBytesPerPacket = HostBytesPerFrame,
    .mFramesPerPacket = 1,
    .mBytesPerFrame = HostBytesPerFrame,
    .mChannelsPerFrame = HostChannels,
    .mBitsPerChannel = HostBitsPerSample,
    .mReserved = 0,
};

/// Frames in `length` bytes of such a stream; 0 also for a description that cannot be right, or for more sound than a
/// record can carry.
std::uint32_t frameCount(const AudioStreamBasicDescription& stream, std::size_t length) {
  const bool isPlanar = (stream.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
  const std::size_t planes = isPlanar ? stream.mChannelsPerFrame : 1;
  if (stream.mBytesPerFrame == 0 || planes == 0) return 0;
  const std::size_t frames = length / stream.mBytesPerFrame / planes;
  constexpr std::size_t most = std::numeric_limits<std::int32_t>::max() / HostBytesPerFrame;
  return frames > most ? 0 : static_cast<std::uint32_t>(frames);
}

}  // namespace

inline float PixelAspectRatio::of(CVImageBufferRef image) {
  const auto* attached =
      static_cast<CFDictionaryRef>(CVBufferGetAttachment(image, kCVImageBufferPixelAspectRatioKey, nullptr));
  if (!attached) return 1.0F;
  if (attached != _lastAttached.get()) read(attached);
  return _ratio;
}

void PixelAspectRatio::read(CFDictionaryRef attached) {
  _ratio = ratioOf(attached);
  _lastAttached = CFRef<CFDictionaryRef>::retain(attached);
}

// VCaptureDelegate

Ref<VCaptureDelegate> VCaptureDelegate::initWithDevice(AV::Device* device) {
  return Ref<VCaptureDelegate>::adopt(new VCaptureDelegate(device));
}

inline void VCaptureDelegate::fillRecord(CVImageBufferRef image, std::int64_t timeStamp) {
  const CGSize size = CVImageBufferGetDisplaySize(image);
  _videoBuffer.format = BRV_FORMAT_PIXEL_BUFFER;
  _videoBuffer.width = truncated(size.width);
  _videoBuffer.height = truncated(size.height);
  _videoBuffer.rowBytes = static_cast<std::int32_t>(CVPixelBufferGetBytesPerRow(image));
  _videoBuffer.pixelAspectRatio = _pixelAspectRatio.of(image);
  _videoBuffer.timeStamp = timeStamp;
  _videoBuffer.data = image;
}

/// The first sample's timescale is no change; every later one that differs is.
inline void VCaptureDelegate::markFormatChange() {
  const std::int32_t current = timescale();
  if (_oldTimescale != current) {
    if (_oldTimescale != -1) _videoBuffer.flags |= BRV_FLAG_FORMAT_CHANGED;
    _oldTimescale = current;
  }
  if (_dirty.take()) _videoBuffer.flags |= BRV_FLAG_FORMAT_CHANGED;
}

void VCaptureDelegate::captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                          AVCaptureConnection*) {
  const CMTime time = CMSampleBufferGetPresentationTimeStamp(sampleBuffer);
  setTimescale(time.timescale);
  CVImageBufferRef image = CMSampleBufferGetImageBuffer(sampleBuffer);
  if (!image) return _withheld.note(AV::Withheld::Reason::noPicture, output);

  fillRecord(image, time.value);
  markFormatChange();
  if (_pVideoDataArriveCallback && _pVideoDataArriveContext) {
    _pVideoDataArriveCallback(_pVideoDataArriveContext, &_videoBuffer);
  } else {
    _withheld.note(AV::Withheld::Reason::unheard, output);
  }
  _videoBuffer.flags = BRV_FLAG_NOT_FIRST;
}

void VCaptureDelegate::captureOutputDidDropSampleBuffer(AVCaptureOutput*, CMSampleBufferRef, AVCaptureConnection*) {
  AV_LOG(AV::LevelOther, "Dropped a Frame!\n");
}

// ACaptureDelegate

ACaptureDelegate::ACaptureDelegate() : _destinationDescription(HostDescription) {}

Ref<ACaptureDelegate> ACaptureDelegate::init() {
  return Ref<ACaptureDelegate>::adopt(new ACaptureDelegate);
}

ACaptureDelegate::~ACaptureDelegate() {
  if (fAudioConverter) AudioConverterDispose(fAudioConverter);
  setVideoDelegate(nullptr);
}

void ACaptureDelegate::captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                          AVCaptureConnection*) {
  CMTime time = CMSampleBufferGetPresentationTimeStamp(sampleBuffer);
  auto reason = prepare(sampleBuffer, time);
  if (!reason && !deliver(time.value)) reason = AV::Withheld::Reason::unheard;
  if (reason) _withheld.note(*reason, output, static_cast<std::uint64_t>(CMSampleBufferGetNumSamples(sampleBuffer)));
}

std::optional<AV::Withheld::Reason> ACaptureDelegate::prepare(CMSampleBufferRef sampleBuffer, CMTime& time) {
  using Reason = AV::Withheld::Reason;
  if (!takeTime(time)) return Reason::invalidTime;

  CMBlockBufferRef block = CMSampleBufferGetDataBuffer(sampleBuffer);
  const CMFormatDescriptionRef format = CMSampleBufferGetFormatDescription(sampleBuffer);
  const AudioStreamBasicDescription* input =
      format ? CMAudioFormatDescriptionGetStreamBasicDescription(format) : nullptr;
  if (!input || input->mFormatID != kAudioFormatLinearPCM) {
    AV_LOG(AV::LevelOther, "Bad format or bogus ASBD!");
    return Reason::notConverted;
  }

  std::size_t lengthAtStart = 0;
  std::size_t totalLength = 0;
  char* bytes = nullptr;
  if (!block || CMBlockBufferGetDataPointer(block, 0, &lengthAtStart, &totalLength, &bytes) != kCMBlockBufferNoErr) {
    return Reason::notConverted;
  }

  // Sound that needs no conversion needs a converter all the same: one that cannot be had stops it too.
  AudioConverterRef converter = GetAudioConverter(*input, _destinationDescription);
  if (!converter) return Reason::notConverted;

  const std::uint32_t frames = frameCount(*input, totalLength);
  if (frames == 0) return Reason::notConverted;
  const bool isReady = isSameStream(*input, _destinationDescription)
                           ? passThrough(block, bytes, lengthAtStart, totalLength)
                           : convert(converter, sampleBuffer, frames);
  if (!isReady) return Reason::notConverted;
  return std::nullopt;
}

/// Brings the time into the source's timescale; false when there is none yet, or none any more.
bool ACaptureDelegate::takeTime(CMTime& time) {
  if (!_videoDelegate) {
    setTimescale(time.timescale);
    return true;
  }
  const std::int32_t videoTimescale = _videoDelegate->timescale();
  if (videoTimescale <= 0) {
    if (!std::exchange(_saidThatSoundWaits, true)) {
      AV_LOG(AV::LevelOther, "Dropping Sound until a picture tells the timescale of its time stamps!\n");
    }
    return false;
  }
  setTimescale(videoTimescale);
  time = CMTimeConvertScale(time, videoTimescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
  return true;
}

/// The record shows the sample's own memory, or a copy of it in one piece where it comes in several.
bool ACaptureDelegate::passThrough(CMBlockBufferRef block, char* bytes, std::size_t lengthAtStart,
                                   std::size_t totalLength) {
  if (totalLength > std::numeric_limits<std::int32_t>::max()) return false;
  const auto length = static_cast<std::uint32_t>(totalLength);
  if (lengthAtStart < totalLength) {
    if (!reserveOutputBuffer(length) ||
        CMBlockBufferCopyDataBytes(block, 0, totalLength, _pOutputBuffer.get()) != kCMBlockBufferNoErr) {
      return false;
    }
    setData(_pOutputBuffer.get(), length);
  } else {
    setData(bytes, length);
  }
  return true;
}

bool ACaptureDelegate::convert(AudioConverterRef converter, CMSampleBufferRef sampleBuffer, std::uint32_t frames) {
  std::size_t size = 0;
  OSStatus status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
      sampleBuffer, &size, nullptr, 0, kCFAllocatorDefault, kCFAllocatorDefault,
      kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, nullptr);
  if (status != noErr) {
    AV_LOG(AV::LevelOther, "%s", GetAudioConverterErrorString(status));
    return false;
  }
  if (size == 0) return false;

  // A list of a few planes fits here; only a longer one is allocated.
  alignas(AudioBufferList) std::array<std::byte, sizeof(AudioBufferList) + 7 * sizeof(AudioBuffer)> shortList;
  std::unique_ptr<std::byte[]> longList;
  void* memory = shortList.data();
  if (size > shortList.size()) {
    longList.reset(new (std::nothrow) std::byte[size]);
    memory = longList.get();
    if (!memory) return false;
  }
  auto* input = static_cast<AudioBufferList*>(memory);

  CMBlockBufferRef retained = nullptr;
  status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
      sampleBuffer, nullptr, input, size, kCFAllocatorDefault, kCFAllocatorDefault,
      kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, &retained);
  if (status != noErr) {
    AV_LOG(AV::LevelOther, "%s", GetAudioConverterErrorString(status));
    return false;
  }
  const auto backing = CFRef<CMBlockBufferRef>::adopt(retained);
  return fillOutputBuffer(converter, input, frames);
}

/// Converts the whole input on its own: nothing is carried over to the next buffer. What the converter leaves of the
/// announced length is silence.
bool ACaptureDelegate::fillOutputBuffer(AudioConverterRef converter, AudioBufferList* input, std::uint32_t frames) {
  const std::uint32_t size = frames * HostBytesPerFrame;
  if (!reserveOutputBuffer(size)) return false;

  AudioBufferList output{1, {{HostChannels, size, _pOutputBuffer.get()}}};
  AudioFillContext context{static_cast<std::int32_t>(frames), input};
  UInt32 packets = frames;
  const OSStatus status =
      AudioConverterFillComplexBuffer(converter, fill_complex_input_proc, &context, &packets, &output, nullptr);
  AudioConverterReset(converter);
  if (status != noErr) {
    AV_LOG(AV::LevelOther, "%s", GetAudioConverterErrorString(status));
    return false;
  }
  const std::uint32_t produced = std::min(packets, frames) * HostBytesPerFrame;
  std::memset(_pOutputBuffer.get() + produced, 0, size - produced);
  setData(_pOutputBuffer.get(), size);
  return true;
}

bool ACaptureDelegate::reserveOutputBuffer(std::uint32_t size) {
  if (_pOutputBuffer && size <= _outputBufferSize) return true;
  _pOutputBuffer.reset();
  _pOutputBuffer.reset(new (std::nothrow) std::uint8_t[size]);
  _outputBufferSize = _pOutputBuffer ? size : 0;
  return _pOutputBuffer != nullptr;
}

void ACaptureDelegate::setData(void* data, std::uint32_t length) {
  _audioBuffer.data = data;
  _audioBuffer.dataLength = static_cast<std::int32_t>(length);
}

/// False when nobody hears it.
bool ACaptureDelegate::deliver(std::int64_t timeStamp) {
  _audioBuffer.timeStamp = timeStamp;
  _audioBuffer.format = BRV_FORMAT_PCM;
  _audioBuffer.sampleRate = HostSampleRate;
  _audioBuffer.channels = HostChannels;
  _audioBuffer.bitsPerSample = HostBitsPerSample;
  if (_oldTimescale != timescale()) {
    _audioBuffer.flags |= BRV_FLAG_FORMAT_CHANGED;
    _oldTimescale = timescale();
  }
  if (_dirty.take()) _audioBuffer.flags |= BRV_FLAG_FORMAT_CHANGED;
  const bool isHeard = _pAudioDataArriveCallback && _pAudioDataArriveContext;
  if (isHeard) _pAudioDataArriveCallback(_pAudioDataArriveContext, &_audioBuffer);
  _audioBuffer.flags = 0;
  return isHeard;
}

AudioConverterRef ACaptureDelegate::GetAudioConverter(AudioStreamBasicDescription inputASDB,
                                                      AudioStreamBasicDescription outputASDB) {
  if (fAudioConverter && isSameStream(fLastInputASDB, inputASDB)) return fAudioConverter;
  if (fAudioConverter) {
    AudioConverterDispose(fAudioConverter);
    fAudioConverter = nullptr;
  }
  AudioConverterRef converter = nullptr;
  const OSStatus status = AudioConverterNew(&inputASDB, &outputASDB, &converter);
  if (status != noErr) {
    AV_LOG(AV::LevelOther, "Failed to create PCM Audio Converter %ld\n", static_cast<long>(status));
    return nullptr;
  }
  fAudioConverter = converter;
  fLastInputASDB = inputASDB;
  return fAudioConverter;
}

const char* ACaptureDelegate::GetAudioConverterErrorString(std::int32_t status) {
  switch (status) {
    case noErr:
      return "";
    case kAudioConverterErr_InputSampleRateOutOfRange:
      return "Input Sample Rate out of Range";
    case kAudioConverterErr_OutputSampleRateOutOfRange:
      return "Output Sample Rate out of Range";
    case kAudioConverterErr_RequiresPacketDescriptionsError:
      return "Missing Required Packet Description";
    case kAudioConverterErr_BadPropertySizeError:
      return "Bad Property Size";
    case kAudioConverterErr_FormatNotSupported:
      return "Format Not Supported";
    case kAudioConverterErr_InvalidInputSize:
      return "Invalid Input Size";
    case kAudioConverterErr_OperationNotSupported:
      return "Operation Not Supported";
    case kAudioConverterErr_InvalidOutputSize:
      return "Invalid Output Size";
    case kAudioConverterErr_PropertyNotSupported:
      return "Property Not Supported";
    case kAudioConverterErr_UnspecifiedError:
      return "Unspecified Error";
    default:
      return "Unknown Error";
  }
}

OSStatus fill_complex_input_proc(AudioConverterRef, UInt32* ioNumberDataPackets, AudioBufferList* ioData,
                                 AudioStreamPacketDescription**, void* userData) {
  auto& context = *static_cast<AudioFillContext*>(userData);
  if (context.framesLeft <= 0) {
    *ioNumberDataPackets = 0;
    return noErr;
  }
  *ioNumberDataPackets = static_cast<UInt32>(context.framesLeft);
  ioData->mNumberBuffers = context.input->mNumberBuffers;
  for (UInt32 i = 0; i < context.input->mNumberBuffers; ++i) ioData->mBuffers[i] = context.input->mBuffers[i];
  context.framesLeft = 0;
  return noErr;
}

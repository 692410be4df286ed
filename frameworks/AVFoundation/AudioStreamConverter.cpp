#include <AVFoundation/AudioStreamConverter.h>

#include <algorithm>
#include <array>
#include <cmath>
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

bool sameStream(const AudioStreamBasicDescription& a, const AudioStreamBasicDescription& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

bool isPlanar(const AudioStreamBasicDescription& stream) {
  return (stream.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
}

constexpr std::size_t MostPlanes = 8;

/// A buffer list with room for every plane.
struct PlaneList {
  AudioBufferList list;
  std::array<AudioBuffer, MostPlanes - 1> more;
};

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

AudioStreamConverter::Result AudioStreamConverter::convert(const hardware::AudioChunk& chunk, BlockPool& blocks) {
  if (chunk.frameCount == 0) return {};  // to the converter it would mean that the input has ended
  if (chunk.frameCount > MostFramesInChunk) return failed({}, Failure::notConvertible);
  Result result;
  if (const auto failure = prepareFor(*chunk.format, result)) return failed(std::move(result), *failure);
  if (!follows(chunk)) result.forgone += endStream();

  const double ratio = _destination.mSampleRate / _source.mSampleRate;
  const auto capacity = static_cast<UInt32>(std::ceil(chunk.frameCount * ratio)) + MostFramesOwed;
  const UInt32 planes = isPlanar(_destination) ? _destination.mChannelsPerFrame : 1;
  const std::size_t planeCapacity = std::size_t{capacity} * _destination.mBytesPerFrame;
  const BlockPool::Memory memory = blocks.take(planeCapacity * planes);
  if (!memory.bytes) return failed(std::move(result), Failure::noMemory);

  PlaneList output{};
  output.list.mNumberBuffers = planes;
  for (UInt32 plane = 0; plane < planes; ++plane) {
    output.list.mBuffers[plane] = {isPlanar(_destination) ? 1 : _destination.mChannelsPerFrame,
                                   static_cast<UInt32>(planeCapacity), memory.bytes + plane * planeCapacity};
  }

  _input = &chunk;
  UInt32 produced = capacity;
  const OSStatus status = AudioConverterFillComplexBuffer(_converter, &AudioStreamConverter::supplyInput, this,
                                                          &produced, &output.list, nullptr);
  _input = nullptr;
  if (status != noErr && status != NoInputYet) {
    blocks.giveBack(memory);
    return failed(std::move(result), Failure::notConvertible);
  }

  const CMTime time = timeOfNextFrame(chunk);
  if (produced > 0) {
    // Bring the planes together: in a sample they follow each other.
    const std::size_t planeLength = std::size_t{produced} * _destination.mBytesPerFrame;
    for (UInt32 plane = 1; plane < planes; ++plane) {
      std::memmove(memory.bytes + plane * planeLength, memory.bytes + plane * planeCapacity, planeLength);
    }
    result.sample = makeSample(blocks.makeBlock(memory, planeLength * planes), produced, time);
    if (!result.sample) return failed(std::move(result), Failure::noMemory);
  } else {
    blocks.giveBack(memory);
  }
  result.frames = produced;
  _framesIn += chunk.frameCount;
  _framesOut += produced;
  _endOfLastChunk = CMTimeAdd(chunk.presentationTime,
                              CMTimeMake(chunk.frameCount, static_cast<int32_t>(std::lround(_source.mSampleRate))));
  return result;
}

AudioStreamConverter::Result AudioStreamConverter::failed(Result result, Failure failure) {
  result.forgone += endStream();
  result.failure = failure;
  return result;
}

CFRef<CMSampleBufferRef> AudioStreamConverter::makeSample(CFRef<CMBlockBufferRef> block, UInt32 frames,
                                                          CMTime time) const {
  CMSampleBufferRef sample = nullptr;
  if (!block ||
      CMAudioSampleBufferCreateReadyWithPacketDescriptions(kCFAllocatorDefault, block.get(), _destinationFormat.get(),
                                                           CMItemCount{frames}, time, nullptr, &sample) != noErr) {
    return {};
  }
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

auto AudioStreamConverter::prepareFor(const hardware::AudioFormat& format, Result& result) -> std::optional<Failure> {
  if (_converter && sameStream(_source, format.stream) && _sourceLayout == format.layout) return std::nullopt;
  result.forgone += endStream();
  if (_converter) AudioConverterDispose(std::exchange(_converter, nullptr));

  // Whether a format may be mixed with others says nothing about its samples.
  AudioStreamBasicDescription source = format.stream;
  source.mFormatFlags &= ~AudioFormatFlags{kAudioFormatFlagIsNonMixable};
  if (const OSStatus status = AudioConverterNew(&source, &_destination, &_converter); status != noErr) {
    _converter = nullptr;
    return status == kAudioConverterErr_UnspecifiedError ? Failure::noMemory : Failure::notConvertible;
  }
  if (format.layout != kAudioChannelLayoutTag_Unknown) {
    const AudioChannelLayout layout{format.layout, 0, 0};
    const OSStatus status =
        AudioConverterSetProperty(_converter, kAudioConverterInputChannelLayout, sizeof layout, &layout);
    if (status == kAudioConverterErr_UnspecifiedError) {  // no memory; the channels would be mixed otherwise than meant
      AudioConverterDispose(std::exchange(_converter, nullptr));
      return Failure::noMemory;
    }
  }
  _source = format.stream;
  _sourceLayout = format.layout;
  return std::nullopt;
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

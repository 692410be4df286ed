#include "Streams.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "PCM.h"

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;

Period periodOf(CMTime duration) {
  return {duration.value, duration.timescale};
}

// One frame of sound. Rates are kept to the thousandth of a hertz.
Period periodOf(double sampleRate) {
  const auto thousandths = std::max<std::int64_t>(1, std::llround(sampleRate * 1000));
  const std::int64_t divisor = std::gcd<std::int64_t, std::int64_t>(1000, thousandths);
  return {1000 / divisor, thousandths / divisor};
}

std::int32_t videoTimescale(const RigDevice& device, CMTime frameDuration) {
  return device.videoTimescale > 0 ? device.videoTimescale : exactTimescale(frameDuration);
}

std::int32_t audioTimescale(const RigDevice& device, const AudioFormat& format) {
  return device.audioTimescale > 0 ? device.audioTimescale
                                   : std::max(1, static_cast<std::int32_t>(std::lround(format.stream.mSampleRate)));
}

// Samples never change places: none is displaced by more than a quarter of its length.
ClockError clockError(const RigDevice& device, double sampleLength) {
  const double jitter = std::min(device.jitterInSeconds, sampleLength / 4);
  return {device.driftInPartsPerMillion, static_cast<Nanoseconds>(jitter * static_cast<double>(NanosecondsPerSecond))};
}

const AudioFormat& audioFormatOf(const RigDevice& device, std::size_t format) {
  return device.description.audioFormats[format];
}

void goOn(SamplePlace& place, Nanoseconds elapsed) {
  ++place.index;
  place.previousElapsed = place.elapsed;
  place.elapsed = elapsed;
}

}  // namespace

CMTime heldWithin(const std::vector<FrameRateRange>& ranges, CMTime duration) {
  const bool isUsable = CMTIME_IS_NUMERIC(duration) && duration.value > 0;
  if (ranges.empty()) return isUsable ? duration : CMTimeMake(1, 30);

  CMTime shortest = ranges.front().minFrameDuration;
  for (const FrameRateRange& range : ranges) {
    if (CMTimeCompare(range.minFrameDuration, shortest) < 0) shortest = range.minFrameDuration;
  }
  if (!isUsable) return shortest;

  CMTime nearest = shortest;
  double distance = std::numeric_limits<double>::infinity();
  for (const FrameRateRange& range : ranges) {
    const bool isTooShort = CMTimeCompare(duration, range.minFrameDuration) < 0;
    const bool isTooLong = CMTimeCompare(duration, range.maxFrameDuration) > 0;
    if (!isTooShort && !isTooLong) return duration;
    const CMTime bound = isTooShort ? range.minFrameDuration : range.maxFrameDuration;
    const double away = std::abs(CMTimeGetSeconds(bound) - CMTimeGetSeconds(duration));
    if (away < distance) {
      distance = away;
      nearest = bound;
    }
  }
  return nearest;
}

std::int32_t exactTimescale(CMTime frameDuration) {
  constexpr std::int64_t usual = 30000;
  constexpr std::int64_t finest = 24000;
  if (!CMTIME_IS_NUMERIC(frameDuration) || frameDuration.value <= 0) return usual;
  const std::int64_t own =
      frameDuration.timescale / std::gcd<std::int64_t, std::int64_t>(frameDuration.value, frameDuration.timescale);
  if (usual % own == 0) return usual;
  return static_cast<std::int32_t>(own * std::max<std::int64_t>(1, (finest + own - 1) / own));
}

struct VideoStream::Frame final : VideoFrame {
  explicit Frame(VideoSource& videoSource) : source(videoSource) {}

  bool drawInto(CVPixelBufferRef pixelBuffer) const override {
    if (isUndecodable) return false;
    source.drawInto(pixelBuffer);
    return true;
  }

  VideoSource& source;
  bool isUndecodable = false;
};

VideoStream::VideoStream(const RigDevice& device, Nanoseconds start, std::size_t format, CMTime frameDuration)
    : _device(device),
      _source(makeVideoSource(device.picture)),
      _format(format),
      _frameDuration(frameDuration),
      _clock(start, periodOf(frameDuration), videoTimescale(device, frameDuration),
             clockError(device, CMTimeGetSeconds(frameDuration))) {
  select(format, frameDuration);
  _hasEnded = !_source->advance();
}

void VideoStream::select(std::size_t format, CMTime frameDuration) {
  _format = format;
  const VideoFormat& described = _device.description.videoFormats[format];
  const PictureBehaviour behaviour = format < _device.pictures.size() ? _device.pictures[format] : PictureBehaviour{};
  const std::int32_t width = behaviour.width > 0 ? behaviour.width : described.width;
  const std::int32_t height = behaviour.height > 0 ? behaviour.height : described.height;
  if (width != _width || height != _height) {
    _width = width;
    _height = height;
    _source->setSize(width, height);
  }
  if (CMTimeCompare(frameDuration, _frameDuration) != 0) {
    _frameDuration = frameDuration;
    _clock.setPeriod(periodOf(frameDuration), videoTimescale(_device, frameDuration));
  }
}

bool VideoStream::isSilent() const {
  return _format < _device.pictures.size() && _device.pictures[_format].neverDelivers;
}

bool VideoStream::deliver(Sink* sink) {
  const SampleFaults faults = faultsAt(_place, _device.videoFaults);
  const bool isSeen = sink && !isSilent();
  if (isSeen) {
    Frame frame(*_source);
    frame.presentationTime = stampWith(faults, _clock.stamp());
    frame.duration = _frameDuration;
    frame.width = _width;
    frame.height = _height;
    frame.hasImage = !faults.hasNoImage;
    frame.isUndecodable = faults.isUndecodable;
    if (faults.isLost) {
      sink->videoFrameLost(frame.presentationTime, frame.duration);
    } else {
      sink->videoFrameCaptured(frame);
    }
  }
  _clock.advance();
  goOn(_place, _clock.elapsed());
  _hasEnded = !_source->advance();
  return isSeen;
}

AudioStream::AudioStream(const RigDevice& device, Nanoseconds start, std::size_t format)
    : _device(device),
      _source(makeAudioSource(device.sound)),
      _format(format),
      _clock(start, periodOf(audioFormatOf(device, format).stream.mSampleRate),
             audioTimescale(device, audioFormatOf(device, format)),
             clockError(device, device.audioBufferLength / audioFormatOf(device, format).stream.mSampleRate)) {
  prepareBuffers();
}

void AudioStream::select(std::size_t format) {
  _format = format;
  const AudioFormat& described = audioFormatOf(_device, format);
  _clock.setPeriod(periodOf(described.stream.mSampleRate), audioTimescale(_device, described));
  prepareBuffers();
}

void AudioStream::prepareBuffers() {
  const AudioStreamBasicDescription& stream = audioFormatOf(_device, _format).stream;
  const std::uint32_t count = bufferCount(stream);
  const std::size_t bufferSize = static_cast<std::size_t>(_device.audioBufferLength) * stream.mBytesPerFrame;
  _samples.resize(static_cast<std::size_t>(_device.audioBufferLength) * stream.mChannelsPerFrame);
  _bytes.resize(count * bufferSize);
  _list.resize((offsetof(AudioBufferList, mBuffers) + count * sizeof(AudioBuffer)) / sizeof(std::uint64_t));

  auto& list = *reinterpret_cast<AudioBufferList*>(_list.data());
  list.mNumberBuffers = count;
  AudioBuffer* buffers = list.mBuffers;
  for (std::uint32_t i = 0; i < count; ++i) {
    buffers[i].mNumberChannels = stream.mChannelsPerFrame / count;
    buffers[i].mData = _bytes.data() + i * bufferSize;
  }
}

Nanoseconds AudioStream::due() const {
  return _source->hasEnded() ? runtime::Never : _clock.due(_device.audioBufferLength);
}

void AudioStream::deliver(Sink* sink) {
  const AudioFormat& format = audioFormatOf(_device, _format);
  const std::size_t frames = _source->render(_samples, format.stream.mChannelsPerFrame, format.stream.mSampleRate);
  if (frames == 0) return;

  auto& list = *reinterpret_cast<AudioBufferList*>(_list.data());
  AudioBuffer* buffers = list.mBuffers;
  for (std::uint32_t i = 0; i < list.mNumberBuffers; ++i) {
    buffers[i].mDataByteSize = static_cast<std::uint32_t>(frames) * format.stream.mBytesPerFrame;
  }
  writeSamples(std::span(_samples).first(frames * format.stream.mChannelsPerFrame), format.stream, list);

  const SampleFaults faults = faultsAt(_place, _device.audioFaults);
  AudioChunk chunk;
  chunk.presentationTime = stampWith(faults, _clock.stamp());
  chunk.frameCount = static_cast<std::uint32_t>(frames);
  chunk.format = &format;
  chunk.buffers = &list;
  if (sink && faults.isLost) {
    sink->audioChunkLost(chunk.presentationTime, chunk.frameCount);
  } else if (sink) {
    sink->audioChunkCaptured(chunk);
  }

  _clock.advance(frames);
  goOn(_place, _clock.elapsed());
}

}  // namespace hardware::simulated

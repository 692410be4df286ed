#include "capture/SoundStream.h"

#include <cmath>
#include <cstring>
#include <utility>

#include "capture/BufferMemory.h"

namespace hardware::pipewire {

using runtime::NanosecondsPerSecond;

namespace {

/// A driver without a clock tells no time.
ChunkTime read(const pw_time& time) {
  ChunkTime read;
  read.end = time.now > 0 ? time.now : runtime::Scheduler::current().now();
  if (time.rate.denom == 0) return read;
  const double tick = static_cast<double>(NanosecondsPerSecond) * time.rate.num / time.rate.denom;
  read.end -= std::llround(static_cast<double>(time.delay) * tick);
  read.position = std::llround(static_cast<double>(time.ticks) * tick);
  return read;
}

}  // namespace

SoundStream::SoundStream(Sink& sink, Admission& admission, EventLoop& loop, SoundFormat format)
    : _sink(sink), _admission(admission), _arrival(loop, [this] { deliver(); }), _format(std::move(format)) {}

void SoundStream::select(SoundFormat format) {
  _format = std::move(format);
}

std::int32_t SoundStream::rate() const {
  return static_cast<std::int32_t>(std::lround(_format.format.stream.mSampleRate));
}

Properties SoundStream::properties() const {
  // The graph is asked, not forced, to run at the device's rate: other programs may be in it.
  return {{PW_KEY_MEDIA_TYPE, "Audio"},
          {PW_KEY_MEDIA_CATEGORY, "Capture"},
          {PW_KEY_MEDIA_ROLE, "Production"},
          {PW_KEY_NODE_RATE, "1/" + std::to_string(rate())}};
}

pw_stream_flags SoundStream::flags() const {
  return static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                      PW_STREAM_FLAG_RT_PROCESS);
}

std::vector<const spa_pod*> SoundStream::request(spa_pod_builder& builder) const {
  return {requestFor(_format, builder)};
}

void SoundStream::attach(pw_stream* stream) {
  static const pw_stream_events events = [] {
    pw_stream_events made{};
    made.version = PW_VERSION_STREAM_EVENTS;
    made.process = [](void* self) { static_cast<SoundStream*>(self)->process(); };
    return made;
  }();
  constexpr std::size_t longestDelay = 2;  // seconds that the lane may be behind
  _ring.emplace(_format.format.stream.mBytesPerFrame, longestDelay * static_cast<std::size_t>(rate()));
  _clock.emplace(rate());
  _stream = stream;
  pw_stream_add_listener(_stream, &_listener, &events, this);
}

// On the data thread.
void SoundStream::process() {
  pw_buffer* const buffer = pw_stream_dequeue_buffer(_stream);
  if (!buffer) return;
  pw_time time{};
  pw_stream_get_time_n(_stream, &time, sizeof time);
  if (_admission.admits() && buffer->buffer->datas[0].data) keep(buffer->buffer->datas[0], time);
  pw_stream_queue_buffer(_stream, buffer);
}

/// Copies the channels that are wanted. Sound for which there is no room is lost, which the times of the rest tell.
void SoundStream::keep(const spa_data& memory, const pw_time& time) {
  const std::size_t kept = _format.format.stream.mBytesPerFrame;
  const std::size_t sample = kept / _format.format.stream.mChannelsPerFrame;
  const std::size_t whole = sample * _format.streamChannels();
  const ChunkBounds chunk = boundsOf(memory);
  const auto frames = static_cast<std::uint32_t>(chunk.size / whole);
  if (frames == 0) return;
  std::uint8_t* to = _ring->beginWrite(frames);
  if (!to) return;
  const std::uint8_t* from = static_cast<const std::uint8_t*>(memory.data) + chunk.offset;
  if (kept == whole) {
    std::memcpy(to, from, frames * whole);
  } else {
    from += _format.format.firstInput.value_or(0) * sample;
    for (std::uint32_t i = 0; i < frames; ++i, from += whole, to += kept) std::memcpy(to, from, kept);
  }
  _ring->endWrite(frames, read(time));
  _arrival.raise();
}

void SoundStream::deliver() {
  ChunkRing::Chunk chunk;
  while (_admission.admits() && _ring->beginRead(chunk)) {
    _admission.noteSample(runtime::Scheduler::current().now());
    const AudioStreamBasicDescription& stream = _format.format.stream;
    AudioBufferList list{};
    list.mNumberBuffers = 1;
    list.mBuffers[0] = {stream.mChannelsPerFrame, chunk.frames * stream.mBytesPerFrame,
                        const_cast<std::uint8_t*>(chunk.bytes)};
    const SoundClock::Stamp stamp = _clock->stamp(chunk.time, chunk.frames);
    if (stamp.lostBefore > 0) _sink.audioChunkLost(timeOf(stamp.previous, rate()), stamp.lostBefore);
    AudioChunk captured;
    captured.presentationTime = timeOf(stamp.time, rate());
    captured.frameCount = chunk.frames;
    captured.format = &_format.format;
    captured.buffers = &list;
    _sink.audioChunkCaptured(captured);
    _ring->endRead();
  }
}

}  // namespace hardware::pipewire

#include "record/AudioTrack.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

namespace {

/// Some seconds of sound in runs of the usual length; it weighs little.
constexpr std::size_t QueueLength = 512;

}  // namespace

AudioTrack::AudioTrack(const std::string& path, std::optional<double> seconds) : Track(path, seconds, QueueLength) {
  startWriting();
}

AudioTrack::~AudioTrack() {
  finish();
}

void AudioTrack::soundArrived(const brv::Sound& sound) noexcept {
  const BRV_AudioBuffer& record = sound.record;
  if (!isRecording()) return;
  try {
    const PCMFormat format{record.sampleRate, record.channels, record.bitsPerSample};
    const std::size_t bytes = accept(record, format);
    if (bytes == 0) return;
    const auto* const samples = static_cast<const std::uint8_t*>(record.data);
    queue(static_cast<std::int64_t>(bytes) / format.bytesPerFrame(), [&](AudioRun& run) {
      run.format = format;
      run.samples.assign(samples, samples + bytes);
    });
  } catch (const std::exception& exception) {
    end(&TrackStatistics::failure, exception.what());
  }
}

/// Counts the run; returns how many of its bytes belong to the recording.
std::size_t AudioTrack::accept(const BRV_AudioBuffer& record, const PCMFormat& format) {
  const std::lock_guard lock(_mutex);
  AudioStatistics& statistics = _statistics;
  std::int64_t frames = record.dataLength / format.bytesPerFrame();
  const bool isNewUnit = (record.flags & BRV_FLAG_FORMAT_CHANGED) != 0;
  if (_seconds) {
    const std::int64_t length = std::max<std::int64_t>(std::llround(*_seconds * format.sampleRate), 1);
    const std::int64_t room = length - statistics.timeline.positionOf(record.timeStamp, frames, isNewUnit);
    if (frames >= room) setComplete();
    if (room <= 0) {
      const double end = statistics.endSeconds();
      const std::int64_t missing = statistics.timeline.endAt(length);
      if (2 * missing > statistics.timeline.lastFrames()) endShort("sound", end);
    }
    frames = std::min(frames, room);
  }
  if (frames <= 0) {
    ++statistics.late;
    return 0;
  }

  if (statistics.recorded == 0) statistics.format = format;
  statistics.timeline.add(record.timeStamp, frames, format.sampleRate, isNewUnit);
  statistics.frames += frames;
  ++statistics.recorded;
  return static_cast<std::size_t>(frames * format.bytesPerFrame());
}

bool AudioTrack::write(const AudioRun& run) {
  if (!_writer) _writer.emplace(std::move(_file), run.format);
  if (run.format != _writer->format()) {
    end(&TrackStatistics::ending, ("the format of the sound changed; " + _path + " ends there").c_str());
    return false;
  }
  _writer->write(run.samples.data(), run.samples.size());
  const std::lock_guard lock(_mutex);
  _statistics.written = _writer->frameCount();
  return true;
}

}  // namespace brvhost

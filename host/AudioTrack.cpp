#include "AudioTrack.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "Failure.h"

namespace brvhost {

namespace {

/// Some seconds of sound in runs of the usual length; it weighs little.
constexpr std::size_t QueueLength = 512;
constexpr std::chrono::milliseconds Patience{1'000};

}  // namespace

AudioTrack::AudioTrack(const std::string& path, std::optional<double> seconds)
    : _path(path), _seconds(seconds), _queue(QueueLength), _file(path), _thread([this] { writeRuns(); }) {}

AudioTrack::~AudioTrack() {
  finish();
}

void AudioTrack::soundArrived(const BRV_AudioBuffer& record) noexcept {
  if (!_isArmed.load(std::memory_order_acquire) || isComplete()) return;
  try {
    const PCMFormat format{record.sampleRate, record.channels, record.bitsPerSample};
    const std::size_t bytes = accept(record, format);
    if (bytes == 0) return;
    const auto* const samples = static_cast<const std::uint8_t*>(record.data);
    const bool isQueued = _queue.push(Patience, [&](Run& run) {
      run.format = format;
      run.samples.assign(samples, samples + bytes);
    });
    if (isQueued) return;
    const std::lock_guard lock(_mutex);
    _statistics.notWritten += static_cast<std::int64_t>(bytes) / format.bytesPerFrame();
  } catch (const std::exception& exception) {
    end(&AudioStatistics::failure, exception.what());
  }
}

/// Counts the run; returns how many of its bytes belong to the recording.
std::size_t AudioTrack::accept(const BRV_AudioBuffer& record, const PCMFormat& format) {
  if (record.format != BRV_FORMAT_PCM || record.data == nullptr || record.dataLength <= 0 ||
      format.bytesPerFrame() <= 0) {
    return 0;
  }
  const std::lock_guard lock(_mutex);
  AudioStatistics& statistics = _statistics;
  std::int64_t frames = record.dataLength / format.bytesPerFrame();
  if (_seconds) {
    const std::int64_t room = std::llround(*_seconds * format.sampleRate) - statistics.frames;
    if (frames >= room) _isComplete.store(true, std::memory_order_release);
    frames = std::min(frames, room);
  }
  if (frames <= 0) return 0;

  if (statistics.runs == 0) {
    statistics.firstStamp = record.timeStamp;
    statistics.format = format;
  }
  statistics.lastStamp = record.timeStamp;
  statistics.framesBeforeLast = statistics.frames;
  statistics.frames += frames;
  ++statistics.runs;
  return static_cast<std::size_t>(frames * format.bytesPerFrame());
}

void AudioTrack::writeRuns() noexcept {
  Run run;
  bool goesOn = true;
  while (_queue.pop(run)) {
    try {
      goesOn = goesOn && write(run);
    } catch (const std::exception& exception) {
      end(&AudioStatistics::failure, exception.what());
      goesOn = false;
    }
  }
}

bool AudioTrack::write(const Run& run) {
  if (!_writer) _writer.emplace(std::move(_file), run.format);
  if (run.format != _writer->format()) {
    end(&AudioStatistics::ending, ("the format of the sound changed; " + _path + " ends there").c_str());
    return false;
  }
  _writer->write(run.samples.data(), run.samples.size());
  const std::lock_guard lock(_mutex);
  _statistics.written = _writer->frameCount();
  return true;
}

void AudioTrack::end(std::optional<std::string> AudioStatistics::*why, const char* reason) noexcept {
  const std::lock_guard lock(_mutex);
  if (!(_statistics.*why)) _statistics.*why = reason;
  _isComplete.store(true, std::memory_order_release);
}

void AudioTrack::finish() noexcept {
  if (!_thread.joinable()) return;
  _queue.close();
  _thread.join();
  try {
    if (_writer) {
      _writer->close();
    } else {
      _file.discard();
    }
  } catch (const std::exception& exception) {
    end(&AudioStatistics::failure, exception.what());
  }
  const std::lock_guard lock(_mutex);
  _statistics.notWritten = _statistics.frames - _statistics.written;
}

AudioStatistics AudioTrack::statistics() const {
  const std::lock_guard lock(_mutex);
  return _statistics;
}

}  // namespace brvhost

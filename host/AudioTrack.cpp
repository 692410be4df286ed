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
    : path_(path), seconds_(seconds), queue_(QueueLength), file_(path), thread_([this] { writeRuns(); }) {}

AudioTrack::~AudioTrack() {
  finish();
}

void AudioTrack::soundArrived(const BRV_AudioBuffer& record) noexcept {
  if (!isArmed_.load(std::memory_order_acquire) || isComplete()) return;
  try {
    const PCMFormat format{record.sampleRate, record.channels, record.bitsPerSample};
    const std::size_t bytes = accept(record, format);
    if (bytes == 0) return;
    const auto* const samples = static_cast<const std::uint8_t*>(record.data);
    const bool isQueued = queue_.push(Patience, [&](Run& run) {
      run.format = format;
      run.samples.assign(samples, samples + bytes);
    });
    if (isQueued) return;
    const std::lock_guard lock(mutex_);
    statistics_.notWritten += static_cast<std::int64_t>(bytes) / format.bytesPerFrame();
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
  const std::lock_guard lock(mutex_);
  AudioStatistics& statistics = statistics_;
  std::int64_t frames = record.dataLength / format.bytesPerFrame();
  if (seconds_) {
    const std::int64_t room = std::llround(*seconds_ * format.sampleRate) - statistics.frames;
    if (frames >= room) isComplete_.store(true, std::memory_order_release);
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
  while (queue_.pop(run)) {
    try {
      goesOn = goesOn && write(run);
    } catch (const std::exception& exception) {
      end(&AudioStatistics::failure, exception.what());
      goesOn = false;
    }
  }
}

bool AudioTrack::write(const Run& run) {
  if (!writer_) writer_.emplace(std::move(file_), run.format);
  if (run.format != writer_->format()) {
    end(&AudioStatistics::ending, ("the format of the sound changed; " + path_ + " ends there").c_str());
    return false;
  }
  writer_->write(run.samples.data(), run.samples.size());
  const std::lock_guard lock(mutex_);
  statistics_.written = writer_->frameCount();
  return true;
}

void AudioTrack::end(std::optional<std::string> AudioStatistics::*why, const char* reason) noexcept {
  const std::lock_guard lock(mutex_);
  if (!(statistics_.*why)) statistics_.*why = reason;
  isComplete_.store(true, std::memory_order_release);
}

void AudioTrack::finish() noexcept {
  if (!thread_.joinable()) return;
  queue_.close();
  thread_.join();
  try {
    if (writer_) {
      writer_->close();
    } else {
      file_.discard();
    }
  } catch (const std::exception& exception) {
    end(&AudioStatistics::failure, exception.what());
  }
  const std::lock_guard lock(mutex_);
  statistics_.notWritten = statistics_.frames - statistics_.written;
}

AudioStatistics AudioTrack::statistics() const {
  const std::lock_guard lock(mutex_);
  return statistics_;
}

}  // namespace brvhost

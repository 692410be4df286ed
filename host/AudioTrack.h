#pragma once

// The sound of a recording: runs of samples in on the capture thread, a WAV file out on a writer thread.

#include <AVCaptureDevice/BRV_AVCapture.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BoundedQueue.h"
#include "OutputFile.h"
#include "WAVWriter.h"

namespace brvhost {

struct AudioStatistics {
  std::int64_t runs = 0;              ///< callbacks that brought sound
  std::int64_t frames = 0;            ///< delivered
  std::int64_t framesBeforeLast = 0;  ///< of these, the ones between the first and the last stamp
  std::int64_t firstStamp = 0;
  std::int64_t lastStamp = 0;
  std::int64_t written = 0;           ///< frames in the file
  std::int64_t notWritten = 0;        ///< delivered, but not in the file; exact once the track is finished
  PCMFormat format;                   ///< of the first run
  std::optional<std::string> ending;  ///< why the sound ended before the recording did
  std::optional<std::string> failure;
};

class AudioTrack {
 public:
  /// Creates the file, throws Failure. `seconds` is the length to stop at, to the frame.
  AudioTrack(const std::string& path, std::optional<double> seconds);
  ~AudioTrack();
  AudioTrack(const AudioTrack&) = delete;
  AudioTrack& operator=(const AudioTrack&) = delete;

  /// Sound counts from now on.
  void arm() noexcept { _isArmed.store(true, std::memory_order_release); }

  /// The capture thread's side: copies the samples and hands them on; waits for a moment when the writer's queue is
  /// full.
  void soundArrived(const BRV_AudioBuffer& record) noexcept;

  /// Writes what is waiting and completes the file, or takes it away when no sound came. None may arrive any more.
  void finish() noexcept;

  /// Any thread.
  AudioStatistics statistics() const;
  bool isComplete() const { return _isComplete.load(std::memory_order_acquire); }
  const std::string& path() const { return _path; }

 private:
  struct Run {
    PCMFormat format;
    std::vector<std::uint8_t> samples;
  };

  std::size_t accept(const BRV_AudioBuffer& record, const PCMFormat& format);
  void writeRuns() noexcept;
  bool write(const Run& run);
  void end(std::optional<std::string> AudioStatistics::*why, const char* reason) noexcept;

  const std::string _path;
  const std::optional<double> _seconds;

  BoundedQueue<Run> _queue;
  std::atomic<bool> _isArmed{false};
  std::atomic<bool> _isComplete{false};
  mutable std::mutex _mutex;  ///< guards the statistics
  AudioStatistics _statistics;

  // Writer thread, and whoever has joined it.
  OutputFile _file;
  std::optional<WAVWriter> _writer;
  std::thread _thread;
};

}  // namespace brvhost

#pragma once

// The picture of a recording: frames in on the capture thread, a Y4M file out on a writer thread.

#include <AVCaptureDevice/BRV_AVCapture.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "BoundedQueue.h"
#include "OutputFile.h"
#include "PixelBuffer.h"
#include "Timeline.h"
#include "Y4MWriter.h"

namespace brvhost {

struct VideoStatistics {
  VideoTimeline timeline;             ///< of the frames that were delivered
  std::int64_t written = 0;           ///< frames in the file
  std::int64_t notWritten = 0;        ///< delivered, but not in the file; exact once the track is finished
  std::optional<Y4MFormat> format;    ///< once the first frame is written
  std::optional<std::string> ending;  ///< why the picture ended before the recording did
  std::optional<std::string> failure;
};

class VideoTrack {
 public:
  /// Creates the file, throws Failure. `seconds` is the length to stop at. `timing` tells how the source counts; it is
  /// called on the capture thread, for the first frame and after a change of format.
  VideoTrack(const std::string& path, std::optional<double> seconds, std::function<FrameTiming()> timing);
  ~VideoTrack();
  VideoTrack(const VideoTrack&) = delete;
  VideoTrack& operator=(const VideoTrack&) = delete;

  /// Frames count from now on.
  void arm() noexcept { _isArmed.store(true, std::memory_order_release); }

  /// The capture thread's side: retains the picture and hands it on. Returns at once while the writer keeps up; when
  /// its queue is full it waits for a place for a moment, as a source that is read as fast as it is taken needs it to.
  void frameArrived(const BRV_VideoBuffer& record) noexcept;

  /// Writes what is waiting and completes the file, or takes it away when no frame came. No frame may arrive any more.
  void finish() noexcept;

  /// Any thread.
  VideoStatistics statistics() const;
  bool isComplete() const { return _isComplete.load(std::memory_order_acquire); }
  const std::string& path() const { return _path; }

 private:
  struct Frame {
    PixelBuffer picture;
    std::int32_t displayWidth = 0;
    std::int32_t displayHeight = 0;
    float pixelAspectRatio = 1;
    Rational frameRate;
  };

  bool accept(const BRV_VideoBuffer& record);
  void writeFrames() noexcept;
  bool write(const Frame& frame);
  void end(std::optional<std::string> VideoStatistics::*why, const char* reason) noexcept;

  const std::string _path;
  const std::optional<double> _seconds;
  const std::function<FrameTiming()> _askForTiming;

  // Capture thread.
  FrameTiming _timing;

  BoundedQueue<Frame> _queue;
  std::atomic<bool> _isArmed{false};
  std::atomic<bool> _isComplete{false};
  mutable std::mutex _mutex;  ///< guards the statistics
  VideoStatistics _statistics;

  // Writer thread, and whoever has joined it.
  OutputFile _file;
  std::optional<Y4MWriter> _writer;
  std::thread _thread;
};

}  // namespace brvhost

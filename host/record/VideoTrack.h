#pragma once

// The picture of a recording: frames in on the capture thread, a Y4M file out on a writer thread.

#include <brv.hpp>

#include <functional>
#include <optional>
#include <string>

#include "record/Timeline.h"
#include "record/Track.h"
#include "record/Y4MWriter.h"

namespace brvhost {

struct VideoStatistics : TrackStatistics {
  VideoTimeline timeline;           ///< of the frames that were delivered
  std::optional<Y4MFormat> format;  ///< once the first frame is written

  /// Where the last frame ends, in seconds after the first began.
  double endSeconds() const { return timeline.endSeconds(); }
  /// How long that frame lasts.
  double sampleSeconds() const {
    return inSeconds(timeline.lastTiming().frameDuration, timeline.lastTiming().ticksPerSecond);
  }
};

/// A frame on its way to the writer.
struct VideoFrame {
  brv::Frame picture;
  Rational frameRate;

  /// At once, not when the next frame comes: the source's pool is only so large.
  void letGo() { picture = {}; }
};

class VideoTrack final : public Track<VideoStatistics, VideoFrame, Y4MWriter> {
 public:
  /// Creates the file, throws Failure. `seconds` is the length to stop at. `timing` tells how the source counts; it is
  /// called on the capture thread, for the first frame and after a change of format.
  VideoTrack(const std::string& path, std::optional<double> seconds, std::function<FrameTiming()> timing);
  ~VideoTrack();

  /// The capture thread's side: retains the picture and hands it on. Returns at once while the writer keeps up; when
  /// its queue is full it waits for a place for a moment, as a source that is read as fast as it is taken needs it to.
  void frameArrived(const brv::Frame& frame) noexcept;

 private:
  bool accept(const BRV_VideoBuffer& record);
  bool write(const VideoFrame& frame) override;

  const std::function<FrameTiming()> _askForTiming;

  // Capture thread.
  FrameTiming _timing;
};

}  // namespace brvhost

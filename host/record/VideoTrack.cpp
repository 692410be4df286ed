#include "record/VideoTrack.h"

#include <exception>
#include <utility>

#include "capture/Sources.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

/// Every frame that waits keeps one of the source's pixel buffers, of which there may be no more than 16; when they are
/// all out, the source loses frames. This leaves it enough to work with.
constexpr std::size_t QueueLength = 8;

}  // namespace

VideoTrack::VideoTrack(const std::string& path, std::optional<double> seconds, std::function<FrameTiming()> timing)
    : Track(path, seconds, QueueLength), _askForTiming(std::move(timing)) {
  startWriting();
}

VideoTrack::~VideoTrack() {
  finish();
}

void VideoTrack::frameArrived(const brv::Frame& frame) noexcept {
  if (!isRecording()) return;
  try {
    if (!accept(frame.record())) return;
    queue(1, [&](VideoFrame& next) {
      next.picture = frame;
      next.frameRate = _timing.frameRate();
    });
  } catch (const std::exception& exception) {
    end(&TrackStatistics::failure, exception.what());
  }
}

bool VideoTrack::accept(const BRV_VideoBuffer& record) {
  if (!_timing.isKnown() || (record.flags & BRV_FLAG_FORMAT_CHANGED) != 0) _timing = _askForTiming();

  const std::lock_guard lock(_mutex);
  VideoTimeline& timeline = _statistics.timeline;
  if (_seconds && timeline.liesBehind(*_seconds, record.timeStamp, _timing)) {
    if (timeline.endAt(*_seconds, record.timeStamp, _timing) > 0) endShort("picture", timeline.endSeconds());
    ++_statistics.late;
    setComplete();
    return false;
  }
  timeline.add(record.timeStamp, _timing);
  ++_statistics.recorded;
  ++_statistics.frames;
  return true;
}

bool VideoTrack::write(const VideoFrame& frame) {
  const brv::Pixels pixels = frame.picture.pixels();
  const PictureView view = viewOf(pixels);
  if (!_writer) {
    const Rational aspect = pixelAspectOf(frame.picture);
    _writer.emplace(std::move(_file), Y4MFormat{view.width, view.height, frame.frameRate, aspect});
  }
  const Y4MFormat& format = _writer->format();
  if (view.width != format.width || view.height != format.height) {
    const std::string reason = formatted("the picture changed from %zu x %zu to %zu x %zu; %s ends there", format.width,
                                         format.height, view.width, view.height, _path.c_str());
    end(&TrackStatistics::ending, reason.c_str());
    return false;
  }
  _writer->writeFrame(view);
  const std::lock_guard lock(_mutex);
  _statistics.format = format;
  _statistics.written = _writer->frameCount();
  return true;
}

}  // namespace brvhost

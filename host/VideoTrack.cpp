#include "VideoTrack.h"

#include <exception>
#include <utility>

#include "Failure.h"

namespace brvhost {

namespace {

/// Every frame that waits keeps one of the source's pixel buffers, of which there may be no more than 16; when they are
/// all out, the source loses frames. This leaves it enough to work with.
constexpr std::size_t QueueLength = 8;
constexpr std::chrono::milliseconds Patience{1'000};

}  // namespace

VideoTrack::VideoTrack(const std::string& path, std::optional<double> seconds, std::function<FrameTiming()> timing)
    : _path(path),
      _seconds(seconds),
      _askForTiming(std::move(timing)),
      _queue(QueueLength),
      _file(path),
      _thread([this] { writeFrames(); }) {}

VideoTrack::~VideoTrack() {
  finish();
}

void VideoTrack::frameArrived(const BRV_VideoBuffer& record) noexcept {
  if (!_isArmed.load(std::memory_order_acquire) || isComplete()) return;
  try {
    if (!accept(record)) return;
    const bool isQueued = _queue.push(Patience, [&](Frame& frame) {
      frame.picture = PixelBuffer::retain(static_cast<CVPixelBufferRef>(record.data));
      frame.displayWidth = record.width;
      frame.displayHeight = record.height;
      frame.pixelAspectRatio = record.pixelAspectRatio;
      frame.frameRate = _timing.frameRate();
    });
    if (isQueued) return;
    const std::lock_guard lock(_mutex);
    ++_statistics.notWritten;
  } catch (const std::exception& exception) {
    end(&VideoStatistics::failure, exception.what());
  }
}

bool VideoTrack::accept(const BRV_VideoBuffer& record) {
  if (record.format != BRV_FORMAT_PIXEL_BUFFER || record.data == nullptr) return false;
  if (!_timing.isKnown() || (record.flags & BRV_FLAG_FORMAT_CHANGED) != 0) _timing = _askForTiming();

  const std::lock_guard lock(_mutex);
  VideoTimeline& timeline = _statistics.timeline;
  if (_seconds && timeline.liesBehind(*_seconds, record.timeStamp, _timing)) {
    _isComplete.store(true, std::memory_order_release);
    return false;
  }
  timeline.add(record.timeStamp, _timing);
  return true;
}

void VideoTrack::writeFrames() noexcept {
  Frame frame;
  bool goesOn = true;
  while (_queue.pop(frame)) {
    try {
      goesOn = goesOn && write(frame);
    } catch (const std::exception& exception) {
      end(&VideoStatistics::failure, exception.what());
      goesOn = false;
    }
    // At once, not when the next frame comes: the source's pool is only so large.
    frame.picture.reset();
  }
}

bool VideoTrack::write(const Frame& frame) {
  const LockedPicture picture(frame.picture.get());
  if (!picture.isReadable()) throw Failure("the source delivers pictures that this host cannot read");
  const PictureView& view = picture.view();
  if (!_writer) {
    const Rational aspect = pixelAspect(frame.pixelAspectRatio, frame.displayWidth, frame.displayHeight,
                                        static_cast<std::int64_t>(view.width), static_cast<std::int64_t>(view.height));
    _writer.emplace(std::move(_file), Y4MFormat{view.width, view.height, frame.frameRate, aspect});
  }
  const Y4MFormat& format = _writer->format();
  if (view.width != format.width || view.height != format.height) {
    const std::string reason = formatted("the picture changed from %zu x %zu to %zu x %zu; %s ends there", format.width,
                                         format.height, view.width, view.height, _path.c_str());
    end(&VideoStatistics::ending, reason.c_str());
    return false;
  }
  _writer->writeFrame(view);
  const std::lock_guard lock(_mutex);
  _statistics.format = format;
  _statistics.written = _writer->frameCount();
  return true;
}

void VideoTrack::end(std::optional<std::string> VideoStatistics::*why, const char* reason) noexcept {
  const std::lock_guard lock(_mutex);
  if (!(_statistics.*why)) _statistics.*why = reason;
  _isComplete.store(true, std::memory_order_release);
}

void VideoTrack::finish() noexcept {
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
    end(&VideoStatistics::failure, exception.what());
  }
  const std::lock_guard lock(_mutex);
  _statistics.notWritten = _statistics.timeline.delivered() - _statistics.written;
}

VideoStatistics VideoTrack::statistics() const {
  const std::lock_guard lock(_mutex);
  return _statistics;
}

}  // namespace brvhost

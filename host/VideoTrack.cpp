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
    : path_(path),
      seconds_(seconds),
      askForTiming_(std::move(timing)),
      queue_(QueueLength),
      file_(path),
      thread_([this] { writeFrames(); }) {}

VideoTrack::~VideoTrack() {
  finish();
}

void VideoTrack::frameArrived(const BRV_VideoBuffer& record) noexcept {
  if (!isArmed_.load(std::memory_order_acquire) || isComplete()) return;
  try {
    if (!accept(record)) return;
    const bool isQueued = queue_.push(Patience, [&](Frame& frame) {
      frame.picture = PixelBuffer::retain(static_cast<CVPixelBufferRef>(record.data));
      frame.displayWidth = record.width;
      frame.displayHeight = record.height;
      frame.pixelAspectRatio = record.pixelAspectRatio;
      frame.frameRate = timing_.frameRate();
    });
    if (isQueued) return;
    const std::lock_guard lock(mutex_);
    ++statistics_.notWritten;
  } catch (const std::exception& exception) {
    end(&VideoStatistics::failure, exception.what());
  }
}

bool VideoTrack::accept(const BRV_VideoBuffer& record) {
  if (record.format != BRV_FORMAT_PIXEL_BUFFER || record.data == nullptr) return false;
  if (!timing_.isKnown() || (record.flags & BRV_FLAG_FORMAT_CHANGED) != 0) timing_ = askForTiming_();

  const std::lock_guard lock(mutex_);
  VideoTimeline& timeline = statistics_.timeline;
  if (seconds_ && timeline.liesBehind(*seconds_, record.timeStamp, timing_)) {
    isComplete_.store(true, std::memory_order_release);
    return false;
  }
  timeline.add(record.timeStamp, timing_);
  return true;
}

void VideoTrack::writeFrames() noexcept {
  Frame frame;
  bool goesOn = true;
  while (queue_.pop(frame)) {
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
  if (!writer_) {
    const Rational aspect = pixelAspect(frame.pixelAspectRatio, frame.displayWidth, frame.displayHeight,
                                        static_cast<std::int64_t>(view.width), static_cast<std::int64_t>(view.height));
    writer_.emplace(std::move(file_), Y4MFormat{view.width, view.height, frame.frameRate, aspect});
  }
  const Y4MFormat& format = writer_->format();
  if (view.width != format.width || view.height != format.height) {
    const std::string reason = formatted("the picture changed from %zu x %zu to %zu x %zu; %s ends there", format.width,
                                         format.height, view.width, view.height, path_.c_str());
    end(&VideoStatistics::ending, reason.c_str());
    return false;
  }
  writer_->writeFrame(view);
  const std::lock_guard lock(mutex_);
  statistics_.format = format;
  statistics_.written = writer_->frameCount();
  return true;
}

void VideoTrack::end(std::optional<std::string> VideoStatistics::*why, const char* reason) noexcept {
  const std::lock_guard lock(mutex_);
  if (!(statistics_.*why)) statistics_.*why = reason;
  isComplete_.store(true, std::memory_order_release);
}

void VideoTrack::finish() noexcept {
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
    end(&VideoStatistics::failure, exception.what());
  }
  const std::lock_guard lock(mutex_);
  statistics_.notWritten = statistics_.timeline.delivered() - statistics_.written;
}

VideoStatistics VideoTrack::statistics() const {
  const std::lock_guard lock(mutex_);
  return statistics_;
}

}  // namespace brvhost

#include "FrameGrabber.h"

#include <chrono>
#include <utility>

#include "Interrupt.h"

namespace brvhost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double PollSeconds = 0.02;
constexpr double SettleSeconds = 0.5;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Keeps the newest frame up to the wanted one.
class Grabber {
 public:
  explicit Grabber(int wanted) : wanted_(wanted) {}

  /// Forgets what came so far.
  void reset() {
    const std::lock_guard lock(mutex_);
    count_ = 0;
    frame_ = {};
  }

  static void videoArrived(void* context, BRV_VideoBuffer* buffer) { static_cast<Grabber*>(context)->keep(*buffer); }

  int count() const {
    const std::lock_guard lock(mutex_);
    return count_;
  }

  Frame take() {
    const std::lock_guard lock(mutex_);
    return std::move(frame_);
  }

 private:
  void keep(const BRV_VideoBuffer& record) {
    if (record.format != BRV_FORMAT_PIXEL_BUFFER || record.data == nullptr) return;
    const std::lock_guard lock(mutex_);
    if (count_ == wanted_) return;
    ++count_;
    frame_.picture = PixelBuffer::retain(static_cast<CVPixelBufferRef>(record.data));
    frame_.displayWidth = record.width;
    frame_.displayHeight = record.height;
    frame_.pixelAspectRatio = record.pixelAspectRatio;
  }

  mutable std::mutex mutex_;
  const int wanted_;
  int count_ = 0;
  Frame frame_;
};

}  // namespace

std::optional<Frame> grabFrame(Session& session, const Source& source, int frameCount, double timeoutSeconds) {
  Grabber grabber(frameCount);
  const RunningSource running(session, source);
  session.start(
      source, Grabber::videoArrived, [](void*, BRV_AudioBuffer*) {}, &grabber, [&] { grabber.reset(); });

  const Clock::time_point start = Clock::now();
  std::optional<Clock::time_point> firstSeen;
  while (grabber.count() < frameCount && !Interrupt::requested()) {
    if (!firstSeen && grabber.count() > 0) firstSeen = Clock::now();
    if (firstSeen ? secondsSince(*firstSeen) >= SettleSeconds : secondsSince(start) >= timeoutSeconds) break;
    Session::pump(PollSeconds);
  }
  if (grabber.count() == 0) return std::nullopt;
  Frame frame = grabber.take();
  frame.timing = session.timing(source.identifier);
  return frame;
}

}  // namespace brvhost

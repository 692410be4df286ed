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
  explicit Grabber(int wanted) : _wanted(wanted) {}

  /// Forgets what came so far.
  void reset() {
    const std::lock_guard lock(_mutex);
    _count = 0;
    _frame = {};
  }

  static void videoArrived(void* context, BRV_VideoBuffer* buffer) { static_cast<Grabber*>(context)->keep(*buffer); }

  int count() const {
    const std::lock_guard lock(_mutex);
    return _count;
  }

  Frame take() {
    const std::lock_guard lock(_mutex);
    return std::move(_frame);
  }

 private:
  void keep(const BRV_VideoBuffer& record) {
    if (record.format != BRV_FORMAT_PIXEL_BUFFER || record.data == nullptr) return;
    const std::lock_guard lock(_mutex);
    if (_count == _wanted) return;
    ++_count;
    _frame.picture = PixelBuffer::retain(static_cast<CVPixelBufferRef>(record.data));
    _frame.displayWidth = record.width;
    _frame.displayHeight = record.height;
    _frame.pixelAspectRatio = record.pixelAspectRatio;
  }

  mutable std::mutex _mutex;
  const int _wanted;
  int _count = 0;
  Frame _frame;
};

}  // namespace

std::optional<Frame> grabFrame(Session& session, const Source& source, int frameCount, double timeoutSeconds) {
  Grabber grabber(frameCount);
  const RunningSource running(session, source);
  session.start(
      source, Grabber::videoArrived, [](void*, BRV_AudioBuffer*) {}, &grabber, [&] { grabber.reset(); });

  const Clock::time_point start = Clock::now();
  std::optional<Clock::time_point> firstSeen;
  while (grabber.count() < frameCount && !Interrupt::requested() && session.isPluggedIn(source)) {
    if (!firstSeen && grabber.count() > 0) firstSeen = Clock::now();
    if (firstSeen ? secondsSince(*firstSeen) >= SettleSeconds : secondsSince(start) >= timeoutSeconds) break;
    Session::pump(PollSeconds);
  }
  if (grabber.count() == 0) return std::nullopt;
  Frame frame = grabber.take();
  frame.timing = session.timing(source.identifier);
  return frame;
}

FrameTiming awaitTiming(Session& session, const Source& source, double timeoutSeconds) {
  char context = 0;  // the module starts nothing for a null one
  const RunningSource running(session, source);
  session.start(
      source, [](void*, BRV_VideoBuffer*) {}, [](void*, BRV_AudioBuffer*) {}, &context, [] {});

  const Clock::time_point start = Clock::now();
  FrameTiming timing = session.timing(source.identifier);
  while (timing.ticksPerSecond <= 0 && secondsSince(start) < timeoutSeconds && !Interrupt::requested() &&
         session.isPluggedIn(source)) {
    Session::pump(PollSeconds);
    timing = session.timing(source.identifier);
  }
  return timing;
}

}  // namespace brvhost

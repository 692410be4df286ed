#include "capture/FrameGrabber.h"

#include <mutex>
#include <optional>

#include "capture/Sources.h"
#include "common/Interrupt.h"

namespace brvhost {

namespace {

using Clock = brv::Time::clock;

constexpr brv::Seconds PollTime(0.02);
constexpr brv::Seconds SettleTime(0.5);

}  // namespace

brv::Frame grabFrame(const brv::Library& library, const brv::Source& source, int frameCount, double timeoutSeconds) {
  std::mutex mutex;
  brv::Frame newest;
  int count = 0;
  const auto keep = [&](const brv::Frame& frame) {
    const std::lock_guard lock(mutex);
    if (count == frameCount) return;
    ++count;
    newest = frame;
  };
  // To do something before the start lets the format be chosen by then.
  const brv::Subscription running = source.listen({.video = keep, .starting = [] {}});
  const auto state = [&] {
    const std::lock_guard lock(mutex);
    return std::pair(count, newest);
  };

  const Clock::time_point start = Clock::now();
  std::optional<Clock::time_point> firstSeen;
  while (state().first < frameCount && !Interrupt::requested() && source.isPluggedIn()) {
    if (!firstSeen && state().first > 0) firstSeen = Clock::now();
    if (firstSeen ? Clock::now() - *firstSeen >= SettleTime : Clock::now() - start >= brv::Seconds(timeoutSeconds))
      break;
    library.poll(PollTime);
  }
  return state().second;
}

FrameTiming awaitTiming(const brv::Library& library, const brv::Source& source, double timeoutSeconds) {
  if (!source.hasVideo() && !source.hasAudio()) return {};
  const brv::Subscription running =
      source.hasVideo() ? source.onVideo([](const brv::Frame&) {}) : source.onAudio([](const brv::Sound&) {});
  const Clock::time_point start = Clock::now();
  FrameTiming timing = timingOf(source);
  while (timing.ticksPerSecond <= 0 && Clock::now() - start < brv::Seconds(timeoutSeconds) && !Interrupt::requested() &&
         source.isPluggedIn()) {
    library.poll(PollTime);
    timing = timingOf(source);
  }
  return timing;
}

}  // namespace brvhost

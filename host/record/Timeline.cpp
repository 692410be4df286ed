#include "record/Timeline.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace brvhost {

namespace {

std::int64_t inTicks(double seconds, std::int32_t ticksPerSecond) {
  constexpr double Most = 1e18;  // that an integer holds
  return std::llround(std::clamp(seconds * ticksPerSecond, -Most, Most));
}

/// How many frames are missing between two neighbouring time stamps: the gap in whole frame durations, to the nearest,
/// less one. 0 for stamps that stand still or go back, and for an unknown duration.
std::int64_t framesMissing(std::int64_t previousStamp, std::int64_t nextStamp, std::int64_t frameDuration) {
  std::int64_t gap = 0;
  if (frameDuration <= 0 || nextStamp <= previousStamp) return 0;
  if (__builtin_sub_overflow(nextStamp, previousStamp, &gap)) gap = std::numeric_limits<std::int64_t>::max();
  const std::int64_t rest = gap % frameDuration;
  const std::int64_t durations = gap / frameDuration + (rest >= frameDuration - rest ? 1 : 0);
  return std::max<std::int64_t>(durations - 1, 0);
}

}  // namespace

/// Of known timing, as that of the last frame.
std::int64_t VideoTimeline::lastStampIn(const FrameTiming& timing) const {
  const bool isSameUnit = timing.ticksPerSecond == _lastTiming.ticksPerSecond;
  return isSameUnit ? _lastStamp : inTicks(inSeconds(_lastStamp, _lastTiming.ticksPerSecond), timing.ticksPerSecond);
}

/// Whether the stamp counts from where the last one does.
bool VideoTimeline::continues(std::int64_t stamp, const FrameTiming& timing) const {
  constexpr double LongestGap = 10;  // seconds
  if (!timing.isKnown() || !_lastTiming.isKnown()) return false;
  if (timing.ticksPerSecond == _lastTiming.ticksPerSecond) return true;
  const double seconds = inSeconds(stamp, timing.ticksPerSecond) - inSeconds(_lastStamp, _lastTiming.ticksPerSecond);
  return seconds > 0 && seconds < LongestGap;
}

/// In frames of the longer kind, where the last was of another.
std::int64_t VideoTimeline::missingBefore(std::int64_t stamp, const FrameTiming& timing) const {
  if (!continues(stamp, timing)) return 0;
  const double lastSeconds = inSeconds(_lastTiming.frameDuration, _lastTiming.ticksPerSecond);
  const std::int64_t duration = std::max(timing.frameDuration, inTicks(lastSeconds, timing.ticksPerSecond));
  return framesMissing(lastStampIn(timing), stamp, duration) - _unstamped;
}

double VideoTimeline::positionOf(std::int64_t stamp, const FrameTiming& timing) const {
  if (_delivered == 0) return 0;
  if (!continues(stamp, timing)) return endSeconds();
  // Against the first frame where its unit still holds: sums of rounded seconds drift.
  const bool sinceFirst = timing.ticksPerSecond == _firstTiming.ticksPerSecond;
  const double ticks = static_cast<double>(stamp) - static_cast<double>(sinceFirst ? _firstStamp : lastStampIn(timing));
  return (sinceFirst ? 0 : _lastPosition) + ticks / timing.ticksPerSecond;
}

double VideoTimeline::endSeconds() const {
  const double durations = static_cast<double>(_unstamped + (_delivered > 0 ? 1 : 0));
  return _lastPosition + durations * inSeconds(_lastTiming.frameDuration, _lastTiming.ticksPerSecond);
}

bool VideoTimeline::liesBehind(double seconds, std::int64_t stamp, const FrameTiming& timing) const {
  return _delivered > 0 &&
         positionOf(stamp, timing) + inSeconds(timing.frameDuration, timing.ticksPerSecond) / 2 > seconds;
}

void VideoTimeline::add(std::int64_t stamp, const FrameTiming& timing) {
  _gaps.add(endSeconds(), missingBefore(stamp, timing));
  if (timing.isKnown()) {
    _lastPosition = positionOf(stamp, timing);
    _lastStamp = stamp;
    if (!_firstTiming.isKnown()) {
      _firstStamp = stamp;
      _firstTiming = timing;
    }
    _lastTiming = timing;
    _unstamped = 0;
  } else if (_lastTiming.isKnown()) {
    ++_unstamped;
  }
  ++_delivered;
}

std::int64_t VideoTimeline::endAt(double seconds, std::int64_t stamp, const FrameTiming& timing) {
  std::int64_t missing = missingBefore(stamp, timing);
  if (missing <= 0) return 0;
  const double lacking = (seconds - endSeconds()) / inSeconds(timing.frameDuration, timing.ticksPerSecond);
  if (lacking < static_cast<double>(missing)) missing = std::llround(lacking);
  _gaps.add(endSeconds(), missing);
  return missing;
}

}  // namespace brvhost

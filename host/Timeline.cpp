#include "Timeline.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace brvhost {

std::int64_t framesMissing(std::int64_t previousStamp, std::int64_t nextStamp, std::int64_t frameDuration) {
  std::int64_t gap = 0;
  if (frameDuration <= 0 || nextStamp <= previousStamp) return 0;
  if (__builtin_sub_overflow(nextStamp, previousStamp, &gap)) gap = std::numeric_limits<std::int64_t>::max();
  const std::int64_t rest = gap % frameDuration;
  const std::int64_t durations = gap / frameDuration + (rest >= frameDuration - rest ? 1 : 0);
  return std::max<std::int64_t>(durations - 1, 0);
}

bool VideoTimeline::continues(const FrameTiming& timing) const {
  return timing.isKnown() && timing.ticksPerSecond == _lastTiming.ticksPerSecond;
}

double VideoTimeline::positionOf(std::int64_t stamp, const FrameTiming& timing) const {
  if (_delivered == 0) return 0;
  if (!continues(timing)) return endSeconds();
  // Against the first frame where its unit still holds: sums of rounded seconds drift.
  const bool sinceFirst = timing.ticksPerSecond == _firstTiming.ticksPerSecond;
  const double ticks = static_cast<double>(stamp) - static_cast<double>(sinceFirst ? _firstStamp : _lastStamp);
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
  if (continues(timing)) {
    _gaps.add(endSeconds(), framesMissing(_lastStamp, stamp, timing.frameDuration) - _unstamped);
  }
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

void VideoTimeline::endAt(double seconds, std::int64_t stamp, const FrameTiming& timing) {
  if (!continues(timing)) return;
  const double lacking = (seconds - endSeconds()) / inSeconds(timing.frameDuration, timing.ticksPerSecond);
  const std::int64_t missing = framesMissing(_lastStamp, stamp, timing.frameDuration) - _unstamped;
  _gaps.add(endSeconds(), lacking < static_cast<double>(missing) ? std::llround(lacking) : missing);
}

}  // namespace brvhost

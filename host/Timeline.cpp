#include "Timeline.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace brvhost {

namespace {

/// Keeps sums of absurd gaps within an integer.
constexpr std::int64_t MostFrames = std::numeric_limits<std::int64_t>::max() / 4;

}  // namespace

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
  if (!continues(timing)) {
    const double durations = static_cast<double>(_unstamped + 1);
    return _lastPosition + durations * inSeconds(_lastTiming.frameDuration, _lastTiming.ticksPerSecond);
  }
  // Against the first frame where its unit still holds: sums of rounded seconds drift.
  const bool sinceFirst = timing.ticksPerSecond == _firstTiming.ticksPerSecond;
  const double ticks = static_cast<double>(stamp) - static_cast<double>(sinceFirst ? _firstStamp : _lastStamp);
  return (sinceFirst ? 0 : _lastPosition) + ticks / timing.ticksPerSecond;
}

bool VideoTimeline::liesBehind(double seconds, std::int64_t stamp, const FrameTiming& timing) const {
  return positionOf(stamp, timing) + inSeconds(timing.frameDuration, timing.ticksPerSecond) / 2 > seconds;
}

void VideoTimeline::add(std::int64_t stamp, const FrameTiming& timing) {
  if (continues(timing)) {
    const std::int64_t missing = framesMissing(_lastStamp, stamp, timing.frameDuration) - _unstamped;
    _dropped = std::min(_dropped + std::clamp<std::int64_t>(missing, 0, MostFrames), MostFrames);
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

std::int32_t soundTicksPerSecond(std::int32_t sourceTicksPerSecond, std::int64_t firstStamp, std::int64_t lastStamp,
                                 std::int64_t frames, std::int32_t sampleRate) {
  constexpr double Tolerance = 0.02;  // well apart from 44,100 to 48,000, well above jitter and drift
  static constexpr std::int32_t Customary[] = {600,     1'000,   8'000,   11'025,    16'000,       22'050, 24'000,
                                               32'000,  44'100,  48'000,  88'200,    90'000,       96'000, 176'400,
                                               192'000, 240'000, 600'000, 1'000'000, 1'000'000'000};

  const auto source = std::max<std::int32_t>(sourceTicksPerSecond, 0);
  if (frames <= 0 || sampleRate <= 0 || lastStamp <= firstStamp) return source;
  const double elapsed = static_cast<double>(frames) / sampleRate;
  const double measured = (static_cast<double>(lastStamp) - static_cast<double>(firstStamp)) / elapsed;
  const auto fits = [measured](std::int32_t rate) { return std::abs(rate - measured) <= Tolerance * measured; };

  if (source > 0 && fits(source)) return source;
  const auto* const nearest = std::min_element(
      std::begin(Customary), std::end(Customary),
      [measured](std::int32_t a, std::int32_t b) { return std::abs(a - measured) < std::abs(b - measured); });
  if (fits(*nearest)) return *nearest;
  return measured < std::numeric_limits<std::int32_t>::max() ? static_cast<std::int32_t>(std::lround(measured)) : 0;
}

}  // namespace brvhost

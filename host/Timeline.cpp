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
  return timing.isKnown() && timing.ticksPerSecond == lastTiming_.ticksPerSecond;
}

double VideoTimeline::positionOf(std::int64_t stamp, const FrameTiming& timing) const {
  if (delivered_ == 0) return 0;
  if (!continues(timing)) {
    const double durations = static_cast<double>(unstamped_ + 1);
    return lastPosition_ + durations * inSeconds(lastTiming_.frameDuration, lastTiming_.ticksPerSecond);
  }
  // Against the first frame where its unit still holds: sums of rounded seconds drift.
  const bool sinceFirst = timing.ticksPerSecond == firstTiming_.ticksPerSecond;
  const double ticks = static_cast<double>(stamp) - static_cast<double>(sinceFirst ? firstStamp_ : lastStamp_);
  return (sinceFirst ? 0 : lastPosition_) + ticks / timing.ticksPerSecond;
}

bool VideoTimeline::liesBehind(double seconds, std::int64_t stamp, const FrameTiming& timing) const {
  return positionOf(stamp, timing) + inSeconds(timing.frameDuration, timing.ticksPerSecond) / 2 > seconds;
}

void VideoTimeline::add(std::int64_t stamp, const FrameTiming& timing) {
  if (continues(timing)) {
    const std::int64_t missing = framesMissing(lastStamp_, stamp, timing.frameDuration) - unstamped_;
    dropped_ = std::min(dropped_ + std::clamp<std::int64_t>(missing, 0, MostFrames), MostFrames);
  }
  if (timing.isKnown()) {
    lastPosition_ = positionOf(stamp, timing);
    lastStamp_ = stamp;
    if (!firstTiming_.isKnown()) {
      firstStamp_ = stamp;
      firstTiming_ = timing;
    }
    lastTiming_ = timing;
    unstamped_ = 0;
  } else if (lastTiming_.isKnown()) {
    ++unstamped_;
  }
  ++delivered_;
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

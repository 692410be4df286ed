#include "record/SoundTimeline.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace brvhost {

namespace {

/// A run that is late by more than this part of its length has a gap in front of it. A device's stamps may be off by a
/// quarter of a run, either way, which makes a step longer by half of one; and a conversion rounds it to whole frames.
constexpr double LargestDelay = 0.75;
constexpr double Rounding = 1;

/// What is more tells nothing, and its sums would not fit.
constexpr std::int64_t MostTicks = std::numeric_limits<std::int64_t>::max() / 4;

constexpr std::int64_t NoTime = 0;

}  // namespace

/// Without ticks where the stamps do not go forward.
SoundTimeline::Step SoundTimeline::stepTo(std::int64_t stamp, std::int64_t frames) const {
  Step step{0, _lastFrames + _unstamped, std::max(frames, _lastFrames), _delivered, _lastStamp != NoTime};
  if (__builtin_sub_overflow(stamp, _lastStamp, &step.ticks) || step.ticks > MostTicks || _delivered == 0) {
    step.ticks = 0;
  }
  return step;
}

std::int64_t SoundTimeline::missingIn(const Step& step) const {
  constexpr double Most = 1e18;  // that an integer holds
  if (_ticksPerFrame <= 0) return 0;
  const double late = static_cast<double>(step.ticks) / _ticksPerFrame - static_cast<double>(step.frames);
  const bool isGap = late > LargestDelay * static_cast<double>(step.longestRun) + Rounding;
  return isGap ? std::llround(std::min(late, Most)) : 0;
}

std::int64_t SoundTimeline::positionOf(std::int64_t stamp, std::int64_t frames, bool isNewUnit) const {
  return _delivered + _gaps.missing() + (isNewUnit ? 0 : missingIn(stepTo(stamp, frames)));
}

void SoundTimeline::add(std::int64_t stamp, std::int64_t frames, std::int32_t sampleRate, bool isNewUnit) {
  if (_delivered == 0) {
    _firstStamp = stamp;
    _sampleRate = sampleRate;
  } else if (isNewUnit) {
    beginUnit();
  } else if (const Step step = stepTo(stamp, frames); step.ticks > 0) {
    if (_firstStepCount < _firstSteps.size()) {
      _firstSteps[_firstStepCount++] = step;
      judgeFirstSteps();
    } else {
      take(step);
    }
  }
  if (stamp == NoTime && _delivered > 0 && !isNewUnit) {
    _unstamped += frames;
  } else {
    _lastStamp = stamp;
    _lastFrames = frames;
    _unstamped = 0;
  }
  _delivered += frames;
}

std::int64_t SoundTimeline::endAt(std::int64_t position) {
  const std::int64_t missing = position - _delivered - _gaps.missing();
  if (_delivered > 0) addGap(_delivered, missing);
  return missing;
}

void SoundTimeline::addGap(std::int64_t framesDelivered, std::int64_t missing) {
  _gaps.add(static_cast<double>(framesDelivered + _gaps.missing()) / _sampleRate, missing);
}

void SoundTimeline::beginUnit() {
  if (!_isSecondUnit) _firstTicksPerSecond = lastTicksPerSecond();
  _isSecondUnit = true;
  _earlierGaps = _gaps;
  _firstStepCount = 0;
  _ticksPerFrame = 0;
}

/// Anew with every one of them, since the unit is not known before: the very first may be a gap. Most are none, and a
/// gap only makes a step longer, so the median is none; of two steps together, so that stamps which are late and early
/// by turns weigh nothing.
void SoundTimeline::judgeFirstSteps() {
  const auto ticksPerFrame = [](const Step& a, const Step& b) {
    return static_cast<double>(a.ticks + b.ticks) / static_cast<double>(a.frames + b.frames);
  };
  std::array<double, FirstSteps> lengths = {ticksPerFrame(_firstSteps[0], {})};
  const std::size_t count = std::max<std::size_t>(_firstStepCount - 1, 1);
  for (std::size_t i = 0; i + 1 < _firstStepCount; ++i) lengths[i] = ticksPerFrame(_firstSteps[i], _firstSteps[i + 1]);
  auto* const median = lengths.data() + (count - 1) / 2;
  std::nth_element(lengths.data(), median, lengths.data() + count);

  _gaps = _earlierGaps;
  _ticks = 0;
  _frames = 0;
  const double usual = *median;
  for (std::size_t i = 0; i < _firstStepCount; ++i) {
    _ticksPerFrame = usual;
    take(_firstSteps[i]);
  }
  _ticksPerFrame = _ticks / _frames;
}

void SoundTimeline::take(const Step& step) {
  if (const std::int64_t missing = missingIn(step); missing > 0) {
    if (step.isFromTime) addGap(step.framesDelivered, missing);
    return;
  }
  _ticks += static_cast<double>(step.ticks);
  _frames += static_cast<double>(step.frames);
  _ticksPerFrame = _ticks / _frames;
}

std::int32_t soundTicksPerSecond(std::int32_t sourceTicksPerSecond, double measured) {
  constexpr double Tolerance = 0.02;  // well apart from 44,100 to 48,000, well above jitter and drift
  static constexpr std::int32_t Customary[] = {600,     1'000,   8'000,   11'025,    16'000,       22'050, 24'000,
                                               32'000,  44'100,  48'000,  88'200,    90'000,       96'000, 176'400,
                                               192'000, 240'000, 600'000, 1'000'000, 1'000'000'000};

  const auto fits = [measured](std::int32_t rate) { return std::abs(rate - measured) <= Tolerance * measured; };
  if (sourceTicksPerSecond > 0 && fits(sourceTicksPerSecond)) return sourceTicksPerSecond;
  const auto* const nearest = std::min_element(
      std::begin(Customary), std::end(Customary),
      [measured](std::int32_t a, std::int32_t b) { return std::abs(a - measured) < std::abs(b - measured); });
  return fits(*nearest) ? *nearest : 0;
}

}  // namespace brvhost

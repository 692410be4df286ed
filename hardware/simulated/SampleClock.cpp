#include "SampleClock.h"

#include <cmath>

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;
__extension__ using Int128 = __int128;

constexpr double PartsPerMillion = 1e6;

// value * multiplier / divisor, rounded half away from zero.
std::int64_t scaled(Int128 value, std::int64_t multiplier, std::int64_t divisor) {
  const Int128 product = value * multiplier;
  const Int128 half = divisor / 2;
  return static_cast<std::int64_t>((product >= 0 ? product + half : product - half) / divisor);
}

// A number from -1 to 1 that depends on `count` in no visible way.
double noise(std::uint64_t count) {
  std::uint64_t bits = count + 0x9E3779B97F4A7C15u;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9u;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EBu;
  bits ^= bits >> 31;
  return static_cast<double>(bits >> 11) * 0x1p-52 - 1;
}

}  // namespace

SampleClock::SampleClock(Nanoseconds start, Period period, std::int32_t timescale, ClockError error)
    : _period(period),
      _timescale(timescale),
      _error(error),
      _baseDue(start),
      _baseStamp(scaled(start, timescale, NanosecondsPerSecond)) {}

void SampleClock::setPeriod(Period period, std::int32_t timescale) {
  const Nanoseconds passed = nominal(_count);
  const auto drifted = static_cast<Nanoseconds>(std::llround(
      static_cast<double>(passed) * _error.driftInPartsPerMillion / (PartsPerMillion + _error.driftInPartsPerMillion)));
  _baseStamp += scaled(Int128{_period.value} * static_cast<std::int64_t>(_count), _timescale, _period.scale) -
                scaled(drifted, _timescale, NanosecondsPerSecond);
  _baseStamp = scaled(_baseStamp, timescale, _timescale);
  _baseDue += passed - drifted;
  _baseElapsed += passed;
  _count = 0;
  _period = period;
  _timescale = timescale;
}

void SampleClock::advance(std::uint64_t count) {
  _count += count;
}

Nanoseconds SampleClock::due(std::uint64_t ahead) const {
  return _baseDue + nominal(_count + ahead) + displacement(_count + ahead);
}

CMTime SampleClock::stamp() const {
  const std::int64_t sincePeriod =
      scaled(Int128{_period.value} * static_cast<std::int64_t>(_count), _timescale, _period.scale);
  return CMTimeMake(_baseStamp + sincePeriod + scaled(displacement(_count), _timescale, NanosecondsPerSecond),
                    _timescale);
}

Nanoseconds SampleClock::elapsed() const {
  return _baseElapsed + nominal(_count);
}

Nanoseconds SampleClock::nominal(std::uint64_t count) const {
  return scaled(Int128{_period.value} * static_cast<std::int64_t>(count), NanosecondsPerSecond, _period.scale);
}

Nanoseconds SampleClock::displacement(std::uint64_t count) const {
  double error = 0;
  if (_error.driftInPartsPerMillion != 0) {
    error -= static_cast<double>(nominal(count)) * _error.driftInPartsPerMillion /
             (PartsPerMillion + _error.driftInPartsPerMillion);
  }
  // The first sample is on time: it is what the others are measured by.
  if (_error.jitter != 0 && count != 0) error += noise(count) * static_cast<double>(_error.jitter);
  return std::llround(error);
}

}  // namespace hardware::simulated

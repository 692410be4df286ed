#include <CoreMedia/CMTime.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

const CMTime kCMTimeInvalid = {0, 0, 0, 0};
const CMTime kCMTimeZero = {0, 1, kCMTimeFlags_Valid, 0};

namespace {

// Wide enough for the sum of two values, each brought to the other's timescale, in ticks of a third one:
// 64 + 31 + 1 + 31 bits.
__extension__ typedef __int128 Wide;

constexpr Wide LargestValue = std::numeric_limits<CMTimeValue>::max();
constexpr Wide SmallestValue = std::numeric_limits<CMTimeValue>::min();

/// In the order in which times of different kinds sort.
enum class Kind { NegativeInfinity, Numeric, Indefinite, PositiveInfinity, Invalid };

Kind kindOf(const CMTime& time) {
  if (!CMTIME_IS_VALID(time)) return Kind::Invalid;
  if (time.flags & kCMTimeFlags_PositiveInfinity) return Kind::PositiveInfinity;
  if (time.flags & kCMTimeFlags_NegativeInfinity) return Kind::NegativeInfinity;
  if (time.flags & kCMTimeFlags_Indefinite) return Kind::Indefinite;
  return time.timescale > 0 ? Kind::Numeric : Kind::Invalid;
}

CMTime infinity(bool negative) {
  const CMTimeFlags sign = negative ? kCMTimeFlags_NegativeInfinity : kCMTimeFlags_PositiveInfinity;
  return {0, 0, kCMTimeFlags_Valid | sign, 0};
}

CMTime indefinite() {
  return {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_Indefinite, 0};
}

bool fitsValue(Wide value) {
  return value >= SmallestValue && value <= LargestValue;
}

struct Quotient {
  Wide value;
  bool exact;
};

/// Rounds half away from zero. `denominator` is positive.
Quotient divide(Wide numerator, Wide denominator) {
  const Wide quotient = numerator / denominator;
  const Wide remainder = numerator % denominator;
  if (remainder == 0) return {quotient, true};
  const Wide magnitude = remainder < 0 ? -remainder : remainder;
  if (magnitude < denominator - magnitude) return {quotient, false};
  return {quotient + (numerator < 0 ? -1 : 1), false};
}

CMTime makeNumeric(const Quotient& ticks, CMTimeScale timescale, CMTimeFlags earlierFlags, CMTimeEpoch epoch) {
  const CMTimeFlags rounded = ticks.exact ? 0 : kCMTimeFlags_HasBeenRounded;
  return {static_cast<CMTimeValue>(ticks.value), timescale,
          kCMTimeFlags_Valid | rounded | (earlierFlags & kCMTimeFlags_HasBeenRounded), epoch};
}

CMTime addNumeric(const CMTime& a, const CMTime& b) {
  // An epoch of 0 stands for a duration, which can be added to a time of any epoch.
  if (a.epoch != b.epoch && a.epoch != 0 && b.epoch != 0) return kCMTimeInvalid;
  const CMTimeEpoch epoch = a.epoch != 0 ? a.epoch : b.epoch;

  const std::int64_t common = std::lcm<std::int64_t>(a.timescale, b.timescale);
  const CMTimeScale timescale = common <= std::numeric_limits<CMTimeScale>::max() ? static_cast<CMTimeScale>(common)
                                                                                  : std::max(a.timescale, b.timescale);
  const Wide numerator = Wide{a.value} * b.timescale + Wide{b.value} * a.timescale;
  const Quotient ticks = divide(numerator * timescale, Wide{a.timescale} * b.timescale);
  if (!fitsValue(ticks.value)) return infinity(numerator < 0);
  return makeNumeric(ticks, timescale, a.flags | b.flags, epoch);
}

}  // namespace

CMTime CMTimeMake(int64_t value, int32_t timescale) {
  if (timescale <= 0) return kCMTimeInvalid;
  return {value, timescale, kCMTimeFlags_Valid, 0};
}

CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale) {
  if (std::isnan(seconds) || preferredTimescale <= 0) return kCMTimeInvalid;

  constexpr long double limit = 9223372036854775808.0L;  // 2^63
  const long double ticks = std::round(static_cast<long double>(seconds) * preferredTimescale);
  if (!(ticks >= -limit && ticks < limit)) return infinity(seconds < 0);
  CMTime time = CMTimeMake(static_cast<CMTimeValue>(ticks), preferredTimescale);
  if (CMTimeGetSeconds(time) != seconds) time.flags |= kCMTimeFlags_HasBeenRounded;
  return time;
}

double CMTimeGetSeconds(CMTime time) {
  switch (kindOf(time)) {
    case Kind::Numeric:
      return static_cast<double>(time.value) / time.timescale;
    case Kind::PositiveInfinity:
      return std::numeric_limits<double>::infinity();
    case Kind::NegativeInfinity:
      return -std::numeric_limits<double>::infinity();
    case Kind::Indefinite:
    case Kind::Invalid:
      break;
  }
  return std::numeric_limits<double>::quiet_NaN();
}

int32_t CMTimeCompare(CMTime time1, CMTime time2) {
  const auto order = [](const auto& a, const auto& b) { return a < b ? -1 : (b < a ? 1 : 0); };
  const Kind kind1 = kindOf(time1);
  const Kind kind2 = kindOf(time2);
  if (kind1 != Kind::Numeric || kind2 != Kind::Numeric) return order(kind1, kind2);
  if (time1.epoch != time2.epoch) return order(time1.epoch, time2.epoch);
  return order(Wide{time1.value} * time2.timescale, Wide{time2.value} * time1.timescale);
}

CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod) {
  const Kind kind = kindOf(time);
  if (kind == Kind::Invalid || newTimescale <= 0) return kCMTimeInvalid;
  if (kind != Kind::Numeric) return time;

  const Quotient ticks = divide(Wide{time.value} * newTimescale, time.timescale);
  if (!fitsValue(ticks.value)) return infinity(time.value < 0);
  return makeNumeric(ticks, newTimescale, time.flags, time.epoch);
}

CMTime CMTimeAdd(CMTime addend1, CMTime addend2) {
  const Kind kind1 = kindOf(addend1);
  const Kind kind2 = kindOf(addend2);
  if (kind1 == Kind::Numeric && kind2 == Kind::Numeric) return addNumeric(addend1, addend2);
  if (kind1 == Kind::Invalid || kind2 == Kind::Invalid) return kCMTimeInvalid;
  if (kind1 == Kind::Indefinite || kind2 == Kind::Indefinite) return indefinite();
  if (kind1 == Kind::Numeric) return infinity(kind2 == Kind::NegativeInfinity);
  if (kind2 == Kind::Numeric || kind1 == kind2) return infinity(kind1 == Kind::NegativeInfinity);
  return kCMTimeInvalid;
}

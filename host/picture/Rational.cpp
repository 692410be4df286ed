#include "picture/Rational.h"

#include <cmath>
#include <numeric>

namespace brvhost {

namespace {

constexpr double LargestRatio = 1000;
// A float holds 24 bits; a division of two of them and the way back lose one or two.
constexpr double RelativeTolerance = 3e-7;
constexpr std::int64_t LargestTerm = 100'000;

}  // namespace

Rational reduced(std::int64_t numerator, std::int64_t denominator) {
  if (numerator <= 0 || denominator <= 0) return {};
  const std::int64_t divisor = std::gcd(numerator, denominator);
  return {numerator / divisor, denominator / divisor};
}

Rational simplestRatio(float value) {
  const double wanted = value;
  if (!(wanted >= 1 / LargestRatio && wanted <= LargestRatio)) return {};  // NaN included

  // Convergents of the continued fraction: each is the best ratio for its size.
  std::int64_t previousNumerator = 0, numerator = 1;
  std::int64_t previousDenominator = 1, denominator = 0;
  double rest = wanted;
  for (;;) {
    const double whole = std::floor(rest);
    const auto term = static_cast<std::int64_t>(whole);
    const std::int64_t nextNumerator = term * numerator + previousNumerator;
    const std::int64_t nextDenominator = term * denominator + previousDenominator;
    if (nextNumerator > LargestTerm || nextDenominator > LargestTerm) break;

    previousNumerator = numerator;
    previousDenominator = denominator;
    numerator = nextNumerator;
    denominator = nextDenominator;
    const double reached = static_cast<double>(numerator) / static_cast<double>(denominator);
    if (std::abs(reached - wanted) <= wanted * RelativeTolerance) break;
    rest = 1 / (rest - whole);
  }
  return reduced(numerator, denominator);
}

Rational pixelAspect(float pixelAspectRatio, std::int64_t displayWidth, std::int64_t displayHeight,
                     std::int64_t memoryWidth, std::int64_t memoryHeight) {
  const Rational stated = simplestRatio(pixelAspectRatio);
  if (stated.isKnown() && stated != Rational{1, 1}) return stated;
  const Rational fromSizes = reduced(displayWidth * memoryHeight, displayHeight * memoryWidth);
  return fromSizes.isKnown() ? fromSizes : stated;
}

}  // namespace brvhost

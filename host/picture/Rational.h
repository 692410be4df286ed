#pragma once

// Ratios as media files write them: frame rates and the shapes of pixels.

#include <cstdint>

namespace brvhost {

/// 0:0 stands for unknown.
struct Rational {
  std::int64_t numerator = 0;
  std::int64_t denominator = 0;

  bool isKnown() const { return numerator > 0 && denominator > 0; }
  double value() const { return isKnown() ? static_cast<double>(numerator) / static_cast<double>(denominator) : 0; }
  friend bool operator==(const Rational&, const Rational&) = default;
};

/// The ratio in lowest terms; unknown unless both are above 0.
Rational reduced(std::int64_t numerator, std::int64_t denominator);

/// The simplest ratio that `value` can stand for after a trip through a 32-bit float, as 0.90909094f stands for 10:11.
/// Unknown for anything that is not a ratio between 1:1000 and 1000:1.
Rational simplestRatio(float value);

/// The shape of a picture's pixels. Follows `pixelAspectRatio` where the source states one, and otherwise the display
/// size where that differs from the size in memory. Sizes in pixels.
Rational pixelAspect(float pixelAspectRatio, std::int64_t displayWidth, std::int64_t displayHeight,
                     std::int64_t memoryWidth, std::int64_t memoryHeight);

}  // namespace brvhost

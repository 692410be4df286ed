#include "picture/Rational.h"

#include <gtest/gtest.h>

#include <cmath>

namespace brvhost {
namespace {

TEST(RationalTest, FindsTheSimplestRatioBehindAFloatAndTheShapeOfPixelsFromItOrElseFromTheDisplaySize) {
  for (const Rational& ratio : {Rational{1, 1}, {4, 3}, {10, 11}, {40, 33}, {118, 81}, {128, 117}, {1, 1'000}}) {
    const float value = static_cast<float>(ratio.numerator) / static_cast<float>(ratio.denominator);
    EXPECT_EQ(simplestRatio(value), ratio) << ratio.numerator << ":" << ratio.denominator;
  }
  for (const float value : {0.0F, -1.0F, 1e9F, 1e-9F, std::nanf(""), HUGE_VALF}) {
    EXPECT_FALSE(simplestRatio(value).isKnown()) << value;
  }
  EXPECT_EQ(pixelAspect(1, 1'920, 1'080, 1'440, 1'080), (Rational{4, 3}));
  EXPECT_EQ(pixelAspect(std::nanf(""), 0, 0, 640, 480), Rational{});
}

}  // namespace
}  // namespace brvhost

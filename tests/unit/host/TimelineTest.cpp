#include "Timeline.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Rational.h"

namespace brvhost {
namespace {

constexpr std::int64_t Largest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t Smallest = std::numeric_limits<std::int64_t>::min();
constexpr FrameTiming NTSC{30'000, 1'001};

TEST(TimelineTest, ReadsMissingFramesFromGaps) {
  struct Case {
    std::int64_t previous, next, duration, missing;
  };
  for (const Case& c : {Case{0, 1'001, 1'001, 0},
                        {5'005, 9'009, 1'001, 3},
                        {0, 1'501, 1'001, 0},  // late, but nearer to one duration than to two
                        {0, 1'502, 1'001, 1},
                        {0, 20, 19, 0},        // stamps rounded to a coarse unit
                        {0, 3, 2, 1},          // halfway counts as missing
                        {9'009, 0, 1'001, 0},  // going back
                        {0, 1'001, 0, 0},
                        {0, 1'001, -1, 0},
                        {Smallest, Largest, 1, Largest - 1}}) {
    EXPECT_EQ(framesMissing(c.previous, c.next, c.duration), c.missing)
        << c.previous << " to " << c.next << " by " << c.duration;
  }
}

TEST(TimelineTest, CountsGapsExceptAroundUnstampedFramesAndWhereTheUnitChanges) {
  VideoTimeline timeline;
  for (const std::int64_t frame : {7, 8, 11, 12, 14}) timeline.add(frame * 1'001, NTSC);
  EXPECT_TRUE(timeline.dropped() == 3 && timeline.captured() == 8);

  for (const std::int64_t frame : {16, 19}) {
    timeline.add(0, {0, 0});
    timeline.add(frame * 1'001, NTSC);
  }
  timeline.add(9'000'000, {90'000, 3'003});
  EXPECT_EQ(timeline.dropped(), 4);
  EXPECT_EQ(timeline.firstStamp(), 7'007);
  EXPECT_NEAR(timeline.positionOf(9'003'003, {90'000, 3'003}), 14 * 1'001.0 / 30'000, 1e-9);
}

TEST(TimelineTest, SecondsHoldTheFramesWhoseMiddleLiesInThem) {
  for (const auto& [seconds, expected] : {std::pair{3.0, 90}, {1 / 30.0, 1}, {0.083, 2}, {0.084, 3}}) {
    VideoTimeline timeline;
    int frame = 0;
    for (; !timeline.liesBehind(seconds, 1'000 + frame * 1'001, NTSC); ++frame)
      timeline.add(1'000 + frame * 1'001, NTSC);
    EXPECT_EQ(frame, expected) << seconds;
  }
}

TEST(TimelineTest, FindsTheUnitOfASoundsTimeStamps) {
  struct Case {
    const char* what;
    std::int32_t source;
    std::int64_t first, last, frames;
    std::int32_t ticks;
  };
  for (const Case& c : {Case{"sound in the source's own unit", 30'000, 0, 60'000, 88'200, 30'000},
                        {"a microphone beside a camera", 30'000, 48'000, 3 * 48'000, 88'200, 48'000},
                        {"with drift and a short last run", 30'000, 0, 96'100, 88'000, 48'000},
                        {"an unknown unit", -1, 0, 88'200, 88'200, 44'100},
                        {"stamps that stand still", 600, 5, 5, 88'200, 600},
                        {"absurd stamps", 600, Smallest, Largest, 1, 0}}) {
    EXPECT_EQ(soundTicksPerSecond(c.source, c.first, c.last, c.frames, 44'100), c.ticks) << c.what;
  }
}

TEST(RationalTest, FindsTheSimplestRatioBehindAFloatAndTheShapeOfPixelsFromItOrElseFromTheDisplaySize) {
  for (const Rational& ratio : {Rational{1, 1}, {4, 3}, {10, 11}, {40, 33}, {118, 81}, {128, 117}, {1, 1'000}}) {
    const float value = static_cast<float>(ratio.numerator) / static_cast<float>(ratio.denominator);
    EXPECT_EQ(simplestRatio(value), ratio) << ratio.numerator << ":" << ratio.denominator;
  }
  for (const float value : {0.0F, -1.0F, 1e9F, 1e-9F, std::nanf(""), HUGE_VALF}) {
    EXPECT_FALSE(simplestRatio(value).isKnown()) << value;
  }
  EXPECT_EQ(pixelAspect(10.0F / 11, 720, 486, 720, 486), (Rational{10, 11}));
  EXPECT_EQ(pixelAspect(1, 1'920, 1'080, 1'440, 1'080), (Rational{4, 3}));
  EXPECT_EQ(pixelAspect(1, 640, 480, 640, 480), (Rational{1, 1}));
  EXPECT_EQ(pixelAspect(std::nanf(""), 0, 0, 640, 480), Rational{});
}

}  // namespace
}  // namespace brvhost

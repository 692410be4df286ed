#include "Timeline.h"

#include <gtest/gtest.h>

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
  const Case cases[] = {
      {0, 1'001, 1'001, 0},
      {0, 2'002, 1'001, 1},
      {5'005, 9'009, 1'001, 3},
      {0, 1'501, 1'001, 0},  // late, but nearer to one duration than to two
      {0, 1'502, 1'001, 1},
      {0, 20, 19, 0},        // stamps rounded to a coarse unit
      {0, 3, 2, 1},          // halfway counts as missing
      {0, 400, 1'001, 0},    // early
      {100, 100, 1'001, 0},  // standing still
      {9'009, 0, 1'001, 0},  // going back
      {0, 1'001, 0, 0},
      {0, 1'001, -1, 0},
      {Smallest, Largest, 1, Largest - 1},
      {0, Largest, Largest, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(framesMissing(c.previous, c.next, c.duration), c.missing)
        << c.previous << " to " << c.next << " by " << c.duration;
  }
}

TEST(TimelineTest, CountsFramesAndGapsOfARecording) {
  VideoTimeline timeline;
  for (const std::int64_t frame : {7, 8, 11, 12, 14}) timeline.add(frame * 1'001, NTSC);

  EXPECT_EQ(timeline.delivered(), 5);
  EXPECT_EQ(timeline.dropped(), 3);
  EXPECT_EQ(timeline.captured(), 8);
  EXPECT_EQ(timeline.firstStamp(), 7'007);
  EXPECT_EQ(timeline.lastStamp(), 14'014);
}

TEST(TimelineTest, AFrameWithoutATimeStampIsNeitherAGapNorHidesOne) {
  VideoTimeline timeline;
  timeline.add(0, NTSC);
  timeline.add(0, {0, 0});
  timeline.add(2 * 1'001, NTSC);
  EXPECT_EQ(timeline.dropped(), 0);

  timeline.add(0, {0, 0});
  timeline.add(5 * 1'001, NTSC);
  EXPECT_EQ(timeline.dropped(), 1);
  EXPECT_EQ(timeline.delivered(), 5);
  EXPECT_EQ(timeline.lastStamp(), 5 * 1'001);
}

TEST(TimelineTest, AChangeOfUnitIsNoGapAndTheRecordingGoesOnFromThere) {
  VideoTimeline timeline;
  timeline.add(600, {600, 20});
  timeline.add(620, {600, 20});
  timeline.add(9'000'000, {90'000, 3'000});
  timeline.add(9'003'000, {90'000, 3'000});

  EXPECT_EQ(timeline.dropped(), 0);
  EXPECT_NEAR(timeline.positionOf(9'006'000, {90'000, 3'000}), 4.0 / 30, 1e-9);
}

TEST(TimelineTest, SecondsHoldTheFramesWhoseMiddleLiesInThem) {
  struct Case {
    FrameTiming timing;
    double seconds;
    int frames;
  };
  const Case cases[] = {
      {{30, 1}, 3, 90},           {NTSC, 3, 90},      {{25, 1}, 0.04, 1}, {{25, 1}, 0.09, 2},
      {{60'000, 1'001}, 10, 599}, {{600, 20}, 2, 60},
  };
  for (const Case& c : cases) {
    VideoTimeline timeline;
    int frame = 0;
    while (!timeline.liesBehind(c.seconds, 1'000 + frame * c.timing.frameDuration, c.timing)) {
      timeline.add(1'000 + frame * c.timing.frameDuration, c.timing);
      ++frame;
    }
    EXPECT_EQ(frame, c.frames) << c.seconds << " s in " << c.timing.ticksPerSecond << "ths";
  }
}

TEST(TimelineTest, SurvivesAbsurdTimeStamps) {
  VideoTimeline timeline;
  for (int i = 0; i < 10; ++i) {
    timeline.add(Smallest, {1, 1});
    timeline.add(Largest, {1, 1});
  }
  EXPECT_EQ(timeline.delivered(), 20);
  EXPECT_GT(timeline.captured(), 0);
}

TEST(TimelineTest, FindsTheUnitOfASoundsTimeStamps) {
  struct Case {
    const char* what;
    std::int32_t source;
    std::int64_t first, last, frames;
    std::int32_t ticks;
  };
  const Case cases[] = {
      {"sound in the source's own unit", 30'000, 0, 60'000, 88'200, 30'000},
      {"a microphone beside a camera", 30'000, 48'000, 3 * 48'000, 88'200, 48'000},
      {"with drift and a short last run", 30'000, 0, 96'100, 88'000, 48'000},
      {"an unknown unit", -1, 0, 88'200, 88'200, 44'100},
      {"an uncustomary one", 0, 0, 2 * 12'345, 88'200, 12'345},
      {"one run only", 600, 5, 5, 0, 600},
      {"stamps that stand still", 600, 5, 5, 88'200, 600},
      {"nothing known", -1, 0, 0, 0, 0},
      {"absurd stamps", 600, Smallest, Largest, 1, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(soundTicksPerSecond(c.source, c.first, c.last, c.frames, 44'100), c.ticks) << c.what;
  }
}

TEST(RationalTest, FindsTheSimplestRatioBehindAFloat) {
  const Rational ratios[] = {{1, 1},   {4, 3},   {10, 11},  {12, 11},   {16, 11}, {40, 33},  {64, 45},
                             {16, 15}, {59, 54}, {118, 81}, {128, 117}, {2, 1},   {1, 1'000}};
  for (const Rational& ratio : ratios) {
    const float value = static_cast<float>(ratio.numerator) / static_cast<float>(ratio.denominator);
    EXPECT_EQ(simplestRatio(value), ratio) << ratio.numerator << ":" << ratio.denominator;
  }
  for (const float value :
       {0.0F, -1.0F, 1e9F, 1e-9F, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    EXPECT_FALSE(simplestRatio(value).isKnown()) << value;
  }
}

TEST(RationalTest, PixelsHaveTheShapeThatIsStatedOrElseTheOneOfTheDisplaySize) {
  EXPECT_EQ(pixelAspect(10.0F / 11, 720, 486, 720, 486), (Rational{10, 11}));
  EXPECT_EQ(pixelAspect(4.0F / 3, 1'920, 1'080, 1'440, 1'080), (Rational{4, 3}));
  EXPECT_EQ(pixelAspect(1, 1'920, 1'080, 1'440, 1'080), (Rational{4, 3}));
  EXPECT_EQ(pixelAspect(1, 640, 480, 640, 480), (Rational{1, 1}));
  EXPECT_EQ(pixelAspect(std::numeric_limits<float>::quiet_NaN(), 0, 0, 640, 480), Rational{});
}

}  // namespace
}  // namespace brvhost

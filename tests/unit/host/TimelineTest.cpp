#include "record/Timeline.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "picture/Rational.h"
#include "record/SoundTimeline.h"

namespace brvhost {
namespace {

constexpr FrameTiming NTSC{30'000, 1'001};

TEST(TimelineTest, CountsGapsExceptAroundUnstampedFramesAndWhereTheClockChanges) {
  VideoTimeline timeline;
  for (const std::int64_t frame : {7, 8, 11, 12, 14}) timeline.add(frame * 1'001 + (frame % 2 == 0 ? 400 : 0), NTSC);
  EXPECT_TRUE(timeline.gaps().missing() == 3 && timeline.captured() == 8);
  EXPECT_NEAR(timeline.gaps().first()[1].position, (6 * 1'001.0 + 400) / 30'000, 1e-9);

  for (const std::int64_t frame : {16, 19}) {
    timeline.add(0, {0, 0});
    timeline.add(frame * 1'001, NTSC);
  }
  timeline.add(9'000'000, {90'000, 3'003});
  EXPECT_EQ(timeline.gaps().missing(), 4);
  EXPECT_EQ(timeline.firstStamp(), 7'007);
  EXPECT_NEAR(timeline.positionOf(9'003'003, {90'000, 3'003}), 14 * 1'001.0 / 30'000, 1e-9);
}

TEST(TimelineTest, SecondsHoldTheFramesWhoseMiddleLiesInThem) {
  for (const auto& [seconds, expected] : {std::pair{3.0, 90}, {1 / 30.0, 1}, {0.083, 2}, {0.084, 3}, {1e-9, 1}}) {
    VideoTimeline timeline;
    int frame = 0;
    for (; !timeline.liesBehind(seconds, 1'000 + frame * 1'001, NTSC); ++frame)
      timeline.add(1'000 + frame * 1'001, NTSC);
    timeline.endAt(seconds, 1'000 + frame * 1'001, NTSC);
    EXPECT_TRUE(frame == expected && timeline.captured() == expected) << seconds;
    timeline.endAt(seconds + 0.1, 1'000'000'000, NTSC);
    EXPECT_NEAR(static_cast<double>(timeline.captured()), (seconds + 0.1) * 30'000 / 1'001, 0.5) << seconds;
  }
}

TEST(SoundTimelineTest, FindsTheUnitOfTheStampsAndTheGapsWhicheverComesFirst) {
  struct Case {
    const char* what;
    std::int32_t source;
    std::function<std::int64_t(std::int64_t)> stampOf;  ///< of each of 200 runs of 441 frames
    std::int32_t ticks;
    std::int64_t missing;
  };
  for (const Case& c : {
           Case{"sound in the source's own unit", 30'000, [](auto run) { return 300 * run; }, 30'000, 0},
           {"a microphone beside a camera", 30'000, [](auto run) { return 480 * run; }, 48'000, 0},
           {"late and early by a quarter, and drifting", 600, [](auto run) { return 481 * run + run % 2 * 240; },
            48'000, 0},
           {"a coarse unit", -1, [](auto run) { return 6 * run + run / 10; }, 600, 0},
           {"a gap at the beginning", 600, [](auto run) { return 1 + 480 * run + (run > 0 ? 9'600 : 0); }, 48'000,
            20 * 441},
           {"single runs lost throughout", 600, [](auto run) { return 480 * (run + run / 5); }, 48'000, 39 * 441},
           {"a run without a time", 600, [](auto run) { return run == 100 ? 0 : 1'000'000 + 480 * run; }, 48'000, 0},
           {"a gap at a run without a time", 600,
            [](auto run) { return run == 100 ? 0 : 1'000'000 + 480 * (run > 99 ? run + 20 : run); }, 48'000, 20 * 441},
           {"stamps that go back once", 600, [](auto run) { return run < 50 ? run * 480 : run * 480 - 9'000; }, 48'000,
            0},
       }) {
    SoundTimeline timeline;
    for (int run = 0; run < 200; ++run) timeline.add(c.stampOf(run), 441, 44'100, false);
    EXPECT_EQ(soundTicksPerSecond(c.source, timeline.lastTicksPerSecond()), c.ticks) << c.what;
    EXPECT_NEAR(static_cast<double>(timeline.gaps().missing()), static_cast<double>(c.missing), 0.01 * 441) << c.what;
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
  EXPECT_EQ(pixelAspect(1, 1'920, 1'080, 1'440, 1'080), (Rational{4, 3}));
  EXPECT_EQ(pixelAspect(std::nanf(""), 0, 0, 640, 480), Rational{});
}

}  // namespace
}  // namespace brvhost

#include "simulated/SampleClock.h"

#include <gtest/gtest.h>

#include "simulated/Streams.h"

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;

constexpr Nanoseconds Start = 1'234'567'891;

TEST(SampleClockTest, StampsAreExactMultiplesOfTheFrameDurationAtBroadcastRates) {
  struct Case {
    CMTime duration;
    std::int32_t timescale;
    std::int64_t ticks;  // a frame
  };
  const Case cases[] = {
      {CMTimeMake(1001, 30000), 30000, 1001}, {CMTimeMake(1001, 60000), 60000, 1001},
      {CMTimeMake(1001, 24000), 24000, 1001}, {CMTimeMake(1, 30), 30000, 1000},
      {CMTimeMake(1, 25), 30000, 1200},       {CMTimeMake(600, 36000), 30000, 500},
      {CMTimeMake(1, 7), 24003, 3429},        {CMTimeMake(1001, 120000), 120000, 1001},
  };
  for (const Case& each : cases) {
    const std::int32_t timescale = exactTimescale(each.duration);
    ASSERT_EQ(timescale, each.timescale);
    SampleClock clock(0, Start, {each.duration.value, each.duration.timescale}, timescale);
    const std::int64_t first = clock.stamp().value;

    for (const std::uint64_t step : {1ull, 1ull, 1000ull, 1'000'000ull, 10'000'000'000ull}) {
      const std::int64_t before = clock.stamp().value;
      clock.advance(step);
      EXPECT_EQ(clock.stamp().value - before, static_cast<std::int64_t>(step) * each.ticks);
      EXPECT_EQ(clock.stamp().timescale, timescale);
    }
    EXPECT_NEAR(static_cast<double>(first) / timescale, 1.234567891, 0.5 / timescale);
  }
}

TEST(SampleClockTest, InACoarseTimescaleNoErrorAddsUp) {
  SampleClock clock(0, 0, {1001, 30000}, 600);

  clock.advance(1);
  EXPECT_EQ(clock.stamp().value, 20);
  clock.advance(29'999);

  EXPECT_EQ(clock.stamp().value, 1001 * 600);
  EXPECT_EQ(clock.due(), 1001 * NanosecondsPerSecond);
}

TEST(SampleClockTest, ANewPeriodBeginsWhereTheOldOneWouldHaveGoneOn) {
  SampleClock clock(100, 0, {1001, 30000}, 30000);
  clock.advance(30);

  clock.setPeriod({1, 50}, 24000);

  EXPECT_EQ(clock.stamp().value, 1001 * 30 * 24000 / 30000);
  EXPECT_EQ(clock.stamp().timescale, 24000);
  EXPECT_EQ(clock.due(), 100 + 1'001'000'000);
  clock.advance(50);
  EXPECT_EQ(clock.stamp().value, 1001 * 30 * 24000 / 30000 + 24000);
  EXPECT_EQ(clock.elapsed(), 2'001'000'000);
}

TEST(SampleClockTest, ADriftingClockKeepsItsErrorThroughAChangeOfPeriod) {
  SampleClock clock(0, 0, {1, 100}, 30000, {1000, 0});
  clock.advance(100'000);
  const Nanoseconds expected = 1000 * NanosecondsPerSecond * 1000 / 1001;

  EXPECT_NEAR(static_cast<double>(clock.due()), static_cast<double>(expected), 2);
  EXPECT_NEAR(CMTimeGetSeconds(clock.stamp()), 1000.0 / 1.001, 1.0 / 30000);
  clock.setPeriod({1, 50}, 30000);
  EXPECT_NEAR(static_cast<double>(clock.due()), static_cast<double>(expected), 2);
  EXPECT_NEAR(CMTimeGetSeconds(clock.stamp()), 1000.0 / 1.001, 1.0 / 30000);
}

TEST(SampleClockTest, JitterMovesSamplesWithinItsBoundsAndBothWays) {
  SampleClock clock(0, 0, {1, 100}, 1'000'000, {0, 2'000'000});
  EXPECT_EQ(clock.due(), 0);
  Nanoseconds earliest = 0;
  Nanoseconds latest = 0;

  for (Nanoseconds i = 1; i < 1000; ++i) {
    clock.advance();
    const Nanoseconds off = clock.due() - i * 10'000'000;
    EXPECT_NEAR(static_cast<double>(clock.stamp().value), static_cast<double>(clock.due()) / 1000, 1);
    earliest = std::min(earliest, off);
    latest = std::max(latest, off);
  }

  EXPECT_GE(earliest, -2'000'000);
  EXPECT_LT(earliest, -1'500'000);
  EXPECT_LE(latest, 2'000'000);
  EXPECT_GT(latest, 1'500'000);
}

TEST(SelectionTest, DurationsAreHeldWithinTheFormatsRanges) {
  const auto range = [](int slowest, int fastest) {
    return FrameRateRange{0, 0, CMTimeMake(1, fastest), CMTimeMake(1, slowest)};
  };
  const std::vector<FrameRateRange> ranges = {range(10, 15), range(25, 30)};
  struct Case {
    CMTime asked;
    CMTime held;
  };
  const Case cases[] = {
      {CMTimeMake(1, 12), CMTimeMake(1, 12)},  {CMTimeMake(1, 30), CMTimeMake(1, 30)},
      {CMTimeMake(1, 60), CMTimeMake(1, 30)},  {CMTimeMake(1, 5), CMTimeMake(1, 10)},
      {CMTimeMake(1, 16), CMTimeMake(1, 15)},  {CMTimeMake(1, 24), CMTimeMake(1, 25)},
      {kCMTimeInvalid, CMTimeMake(1, 30)},     {CMTimeMake(0, 30), CMTimeMake(1, 30)},
      {CMTimeMake(-1, 30), CMTimeMake(1, 30)},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(CMTimeCompare(heldWithin(ranges, each.asked), each.held), 0)
        << each.asked.value << "/" << each.asked.timescale;
  }
}

}  // namespace
}  // namespace hardware::simulated

#include "simulated/SampleClock.h"

#include <gtest/gtest.h>

#include <tuple>

#include "simulated/Streams.h"

namespace hardware::simulated {
namespace {

TEST(SampleClockTest, StampsAreExactMultiplesOfTheFrameDurationAtBroadcastRates) {
  const std::tuple<CMTime, std::int32_t, std::int64_t> durationsTimescalesAndTicksOfAFrame[] = {
      {CMTimeMake(1001, 30000), 30000, 1001}, {CMTimeMake(1001, 24000), 24000, 1001},
      {CMTimeMake(1, 25), 30000, 1200},       {CMTimeMake(600, 36000), 30000, 500},
      {CMTimeMake(1, 7), 24003, 3429},        {CMTimeMake(1001, 120000), 120000, 1001},
  };
  for (const auto& [duration, timescale, ticks] : durationsTimescalesAndTicksOfAFrame) {
    ASSERT_EQ(exactTimescale(duration), timescale);
    SampleClock clock(0, 1'234'567'891, {duration.value, duration.timescale}, timescale);
    const std::int64_t first = clock.stamp().value;
    EXPECT_NEAR(static_cast<double>(first) / timescale, 1.234567891, 0.5 / timescale);

    std::int64_t count = 0;
    for (const std::int64_t step : {1ll, 1ll, 1000ll, 1'000'000ll, 10'000'000'000ll}) {
      clock.advance(static_cast<std::uint64_t>(step));
      count += step;
      EXPECT_EQ(clock.stamp().value, first + count * ticks);
    }
  }
}

}  // namespace
}  // namespace hardware::simulated

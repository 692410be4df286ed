#include "simulated/FaultPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace hardware::simulated {
namespace {

using Kind = Fault::Kind;
using Trigger = Fault::Trigger;

// Which of ten samples, a tenth of a second apart, `isHit` says yes to.
template <typename IsHit>
std::string struck(const Fault& fault, IsHit isHit) {
  std::string result;
  std::optional<runtime::Nanoseconds> previous;
  for (std::uint64_t i = 0; i < 10; ++i) {
    const auto elapsed = static_cast<runtime::Nanoseconds>(i) * runtime::NanosecondsPerSecond / 10;
    result += isHit(faultsAt({i, elapsed, previous}, std::span(&fault, 1))) ? 'x' : '.';
    previous = elapsed;
  }
  return result;
}

TEST(FaultPlanTest, FaultsStrikeWhenTheRigSaysSo) {
  struct Case {
    Fault fault;
    const char* expected;
  };
  const Case lost[] = {
      {{Kind::lostFrame, Trigger::atSample, 0, 0, 0}, "x........."},
      {{Kind::lostFrame, Trigger::atSample, 3, 0, 0}, "...x......"},
      {{Kind::lostFrame, Trigger::atTime, 0, 0, 0}, "x........."},
      {{Kind::lostFrame, Trigger::atTime, 0, 0.45, 0}, ".....x...."},
      {{Kind::lostFrame, Trigger::everySamples, 1, 0, 0}, "xxxxxxxxxx"},
      {{Kind::lostFrame, Trigger::everySamples, 4, 0, 0}, "...x...x.."},
  };
  for (const Case& each : lost) {
    EXPECT_EQ(struck(each.fault, [](const SampleFaults& faults) { return faults.isLost; }), each.expected);
  }
  const Case timescale[] = {
      {{Kind::timescale, Trigger::atSample, 3, 0, 600}, "...xxxxxxx"},
      {{Kind::timescale, Trigger::atTime, 0, 0.45, 600}, ".....xxxxx"},
      {{Kind::timescale, Trigger::everySamples, 2, 0, 600}, "..xx..xx.."},
  };
  for (const Case& each : timescale) {
    EXPECT_EQ(struck(each.fault, [](const SampleFaults& faults) { return faults.timescale == 600; }), each.expected);
  }
}

TEST(FaultPlanTest, AChangedTimescaleTellsTheSameTime) {
  SampleFaults faults;
  faults.timescale = 90000;

  const CMTime stamp = stampWith(faults, CMTimeMake(1001, 30000));

  EXPECT_EQ(stamp.value, 3003);
  EXPECT_EQ(stamp.timescale, 90000);
  faults.hasInvalidTime = true;
  EXPECT_FALSE(CMTIME_IS_VALID(stampWith(faults, CMTimeMake(1001, 30000))));
}

}  // namespace
}  // namespace hardware::simulated

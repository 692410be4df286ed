#include "common/LogCondenser.h"

#include <gmock/gmock.h>

#include <vector>

namespace brvhost {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(LogCondenserTest, WhatRepeatsIsCountedOnceAMinuteAndAtTheEndAndANightOfItIsShort) {
  std::vector<std::string> told;
  std::size_t bytes = 0;
  {
    LogCondenser log([&](int, std::string_view line) { told.emplace_back(line), bytes += line.size() + 1; });
    LogCondenser::Clock::time_point now{};
    int number = 0;
    const auto drops = [&](int count) {
      while (count-- > 0)
        log.line(4, "Camera.cpp:" + std::to_string(++number) + " dropped 0x1f\n", now += 100ms, "now ");
    };
    drops(12);
    EXPECT_EQ(told.size(), 12U);
    told.clear();
    drops(412);
    log.line(4, "something else", now);
    log.look(now += 20s);
    EXPECT_THAT(told, ElementsAre("something else", "now Camera.cpp:424 dropped 0x1f  (… 412 more in 41 s)"));
    told.clear();
    drops(1);
    log.look(now += 61s);
    EXPECT_THAT(told, ElementsAre("now Camera.cpp:425 dropped 0x1f")) << "one alone needs no count";
    told.clear();
    log.look(now += 40min);
    drops(1);
    EXPECT_EQ(told.size(), 1U) << "after a long pause it is new";

    bytes = 0;
    drops(360'000);
    EXPECT_LT(bytes, 10'000U);
    told.clear();
    drops(5);
  }
  EXPECT_THAT(told, ElementsAre(testing::StartsWith("now Camera.cpp:360431 dropped 0x1f  (… ")))
      << "the rest is told at the end";
}

}  // namespace
}  // namespace brvhost

#include "AVLog.h"

#include <gmock/gmock.h>

#include <string>
#include <thread>

#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/SimulationScheduler.h"

namespace {

using testing::ElementsAre;

class LogTest : public testing::Test {
 protected:
  void pass(runtime::Nanoseconds span) { scheduler.sleepUntil(scheduler.now() + span); }
  static void burst(int calls) {
    for (int i = 0; i < calls; ++i) AV::_aux_log(4, 7, "/somewhere/Burst.cpp", "call %d", i);
  }

  test::SimulationScheduler scheduler;  // whose clock stands still until the test moves it
  LogCapture log;
};

TEST_F(LogTest, ABurstIsHeardThenSummarisedOncePer302Calls) {
  burst(1100);

  auto lines = log.lines(), keys = log.keys();
  ASSERT_EQ(lines.size(), 103U);
  for (auto* all : {&lines, &keys}) all->erase(all->begin(), all->begin() + 99);
  EXPECT_THAT(lines, ElementsAre("4 call 99", "4 call 401", "4 call 703", "4 call 1005"));
  EXPECT_THAT(keys, ElementsAre("Burst.cpp:7", "Burst.cpp:7 x 300", "Burst.cpp:7 x 300", "Burst.cpp:7 x 300"));
}

TEST_F(LogTest, ACallSiteIsHeardAgainAfterFiveSecondsOfQuietOrWithANewRegistration) {
  burst(150);
  AV::_aux_log(4, 7, "/elsewhere/Burst.cpp", "same name and line");
  pass(5 * runtime::NanosecondsPerSecond);
  burst(1);
  EXPECT_EQ(log.lines().size(), 100U) << "exactly five seconds are not enough";
  pass(5 * runtime::NanosecondsPerSecond + 1000);
  burst(150);
  AV::_aux_log(4, 8, "/somewhere/Burst.cpp", "other line");
  AV::_aux_log(4, 7, "/somewhere/Other.cpp", "other file");
  EXPECT_EQ(log.lines().size(), 202U);
  log.listen();
  burst(1);
  log.listen(false);
  burst(1);
  EXPECT_EQ(log.lines().size(), 203U) << "without a context nothing is logged";
}

TEST_F(LogTest, LongMessagesAreCutBetweenCharacters) {
  const std::string ascii(507, 'a');
  // Characters of two, three and four bytes across the limit of 511 bytes, some that end at it, and plain ones.
  const char* const cases[][2] = {{"aaa\xC3\xA9", "aaa"},
                                  {"aa\xE2\x82\xAC", "aa"},
                                  {"aaa\xE2\x82\xAC", "aaa"},
                                  {"a\xF0\x9F\x8E\xA5", "a"},
                                  {"aa\xC3\xA9tail", "aa\xC3\xA9"},
                                  {"a\xE2\x82\xACtail", "a\xE2\x82\xAC"},
                                  {"\xF0\x9F\x8E\xA5tail", "\xF0\x9F\x8E\xA5"},
                                  {"aaaaa", "aaaa"}};
  for (const auto& [tail, heard] : cases) {
    AV::_aux_log(4, 1, "Cut.cpp", "%s%s", ascii.c_str(), tail);
    EXPECT_EQ(log.lines().back(), "4 " + ascii + heard);
  }
}

/// A host that is slow to log, and registers nobody in the end.
struct SlowHost {
  Gate gate;
  int calls = 0;  // not atomic: what waits for the call is ordered by it

  static void log(void* context, int, const char*, ...) {
    auto& self = *static_cast<SlowHost*>(context);
    self.gate.pass();
    AV::setLog(nullptr, nullptr, 0, 0);
    ++self.calls;
  }
};

TEST(LogRegistrationTest, ANewRegistrationWaitsForCallsOfTheFormerCallbackUnlessItIsMadeInOne) {
  SlowHost host;
  AV::setLog(SlowHost::log, &host, 400, 100);
  const std::jthread logging([] {
    for (int i = 0; i < 2; ++i) AV_LOG(4, "message");
  });
  host.gate.waitUntilEntered();
  const std::jthread releasing([&] { host.gate.open(); });

  AV::setLog(nullptr, nullptr, 0, 0);

  EXPECT_EQ(host.calls, 1);
}

}  // namespace

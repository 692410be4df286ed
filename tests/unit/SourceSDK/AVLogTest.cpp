#include "AVLog.h"

#include <dispatch/Scheduler.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;

/// A clock that stands still until the test moves it.
class SetClock final : public runtime::Scheduler {
 public:
  SetClock() { install(this); }
  ~SetClock() override { install(nullptr); }
  runtime::Nanoseconds now() override { return time; }
  void sleepUntil(runtime::Nanoseconds wakeTime) override { time = std::max(time, wakeTime); }
  std::unique_ptr<runtime::Lane> makeLane(std::string_view, runtime::LaneClient&) override { return nullptr; }
  bool wait(runtime::Event& event, runtime::Nanoseconds) override { return event.takeSignal(); }
  bool isMainThread() override { return true; }

  runtime::Nanoseconds time = 100 * runtime::NanosecondsPerSecond;
};

struct LogLine {
  int level;
  std::string key;
  std::string message;
};

class LogTest : public testing::Test {
 protected:
  ~LogTest() override { AV::setLog(nullptr, nullptr, 0, 0); }

  static void record(void* context, int level, const char* format, ...) {
    EXPECT_STREQ(format, "%s    %s");
    std::va_list arguments;
    va_start(arguments, format);
    const char* key = va_arg(arguments, const char*);
    const char* message = va_arg(arguments, const char*);
    static_cast<LogTest*>(context)->lines.push_back({level, key, message});
    va_end(arguments);
  }

  void registerLog() { AV::setLog(record, this, 400, 100); }
  static void burst(int calls) {
    for (int i = 0; i < calls; ++i) AV::_aux_log(4, 7, "/somewhere/Burst.cpp", "call %d", i);
  }

  SetClock clock;
  std::vector<LogLine> lines;
};

TEST_F(LogTest, ABurstIsHeardThenSummarisedOncePer302Calls) {
  registerLog();

  burst(1100);

  ASSERT_EQ(lines.size(), 103U);
  EXPECT_EQ(lines[99].key, "Burst.cpp:7");
  EXPECT_EQ(lines[99].message, "call 99");
  EXPECT_EQ(lines[99].level, 4);
  EXPECT_EQ(lines[100].key, "Burst.cpp:7 x 300");
  EXPECT_EQ(lines[100].message, "call 401");
  EXPECT_EQ(lines[101].message, "call 703");
  EXPECT_EQ(lines[102].message, "call 1005");
}

TEST_F(LogTest, MoreThanFiveSecondsOfQuietBeginANewBurst) {
  registerLog();
  burst(150);

  clock.time += 5 * runtime::NanosecondsPerSecond;
  burst(1);
  EXPECT_EQ(lines.size(), 100U) << "exactly five seconds are not enough";

  clock.time += 5 * runtime::NanosecondsPerSecond + 1000;
  burst(1);
  EXPECT_EQ(lines.size(), 101U);
  EXPECT_EQ(lines.back().key, "Burst.cpp:7");
}

TEST_F(LogTest, CallSitesAreCountedByFileNameAndLine) {
  registerLog();
  burst(150);

  AV::_aux_log(4, 8, "/somewhere/Burst.cpp", "other line");
  AV::_aux_log(4, 7, "/somewhere/Other.cpp", "other file");
  AV::_aux_log(4, 7, "/elsewhere/Burst.cpp", "same name and line");

  EXPECT_EQ(lines.size(), 102U);
}

TEST_F(LogTest, EveryRegistrationStartsTheCountsAnewAndTheContextSwitchesLogging) {
  registerLog();
  burst(150);
  registerLog();
  burst(1);
  EXPECT_EQ(lines.size(), 101U);

  AV::setLog(record, nullptr, 400, 100);
  burst(1);
  EXPECT_EQ(lines.size(), 101U);
}

TEST_F(LogTest, LongMessagesAreCutBetweenCharacters) {
  registerLog();
  const std::string ascii(600, 'a');
  // 510 bytes, then characters of two, three and four bytes across the limit.
  for (const char* character : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x8E\xA5"}) {
    AV::_aux_log(4, 1, "Cut.cpp", "%s%s%s", ascii.substr(0, 510).c_str(), character, character);
    EXPECT_EQ(lines.back().message, ascii.substr(0, 510));
  }
  AV::_aux_log(4, 1, "Cut.cpp", "%s", ascii.c_str());
  EXPECT_EQ(lines.back().message, ascii.substr(0, 511));
  AV::_aux_log(4, 1, "Cut.cpp", "%s\xC3\xA9tail", ascii.substr(0, 509).c_str());
  EXPECT_EQ(lines.back().message, ascii.substr(0, 509) + "\xC3\xA9");
}

struct SlowHost {
  std::promise<void> entered;
  std::promise<void> mayReturn;
};

void logSlowly(void* context, int, const char*, ...) {
  auto* slow = static_cast<SlowHost*>(context);
  slow->entered.set_value();
  slow->mayReturn.get_future().wait();
}

void logOnce(void* context, int, const char*, ...) {
  ++*static_cast<int*>(context);
  AV::setLog(nullptr, nullptr, 0, 0);
}

TEST(LogRegistrationTest, ANewRegistrationWaitsForCallsOfTheFormerCallback) {
  SlowHost host;
  std::atomic<bool> replaced{false};
  AV::setLog(logSlowly, &host, 400, 100);
  std::thread logging([] { AV_LOG(4, "slow"); });
  host.entered.get_future().wait();

  std::thread replacing([&] {
    AV::setLog(nullptr, nullptr, 0, 0);
    replaced = true;
  });
  EXPECT_FALSE(replaced);
  host.mayReturn.set_value();
  replacing.join();
  logging.join();

  EXPECT_TRUE(replaced);
}

TEST(LogRegistrationTest, ACallbackMayRegisterAnotherOne) {
  int calls = 0;
  AV::setLog(logOnce, &calls, 400, 100);

  AV_LOG(4, "first");
  AV_LOG(4, "second");

  EXPECT_EQ(calls, 1);
}

}  // namespace

// The loop that runs what waits for the main thread. These tests run on the main thread, as gtest_main does.

#include <CoreFoundation/CFRunLoop.h>
#include <Foundation/NSOperation.h>
#include <gtest/gtest.h>
#include <runtime/MainLoop.h>

#include <limits>
#include <string>
#include <thread>

namespace {

CFRunLoopRunResult run(double seconds, bool returnAfterOne = false) {
  return CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, returnAfterOne);
}

TEST(RunLoopTest, RunsBlocksInOrderAndThoseTheyAddLaterOnTheMainThreadAlone) {
  MainLoop& loop = MainLoop::instance();
  std::string order;
  loop.add([&] {
    order += 'a';
    loop.add([&] { order += 'c'; });
  });
  loop.add(nullptr);
  loop.add([&] { order += 'b'; });

  std::thread([] { EXPECT_EQ(run(0), kCFRunLoopRunFinished); }).join();
  EXPECT_EQ(order, "");
  for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(run(seconds), kCFRunLoopRunTimedOut) << seconds;
    EXPECT_EQ(order, seconds == 0 ? "ab" : "abc") << "a run without time ends though a block adds another";
  }
}

TEST(RunLoopTest, AWaitingRunIsWokenByABlockOrAStopAndAnEarlierStopEndsTheNextRun) {
  constexpr double Forever = std::numeric_limits<double>::infinity();
  const std::jthread adder([] { MainLoop::instance().add([] {}); });
  EXPECT_EQ(run(Forever, true), kCFRunLoopRunHandledSource);
  std::thread stopper([] { CFRunLoopStop(CFRunLoopGetMain()); });
  EXPECT_EQ(run(Forever), kCFRunLoopRunStopped);
  stopper.join();
  CFRunLoopStop(CFRunLoopGetMain());
  EXPECT_EQ(run(Forever), kCFRunLoopRunStopped);
  EXPECT_EQ(run(0), kCFRunLoopRunTimedOut);
}

TEST(RunLoopTest, AThreadRunsTheBlocksInTheMainThreadsPlaceUntilItsLastUserEndsIt) {
  const CFRunLoopRef loop = CFRunLoopGetMain();
  std::string order;
  const auto add = [&](char letter) {
    MainLoop::instance().add([&order, letter] {
      const bool isRefused = !CFRunLoopStartThread(CFRunLoopGetMain()) && run(0) == kCFRunLoopRunFinished;
      order += NSThread::isMainThread() && isRefused ? letter : '?';
    });
  };
  const auto performed = [](void* text) {
    CFRunLoopPerformAndWait(
        CFRunLoopGetMain(), [](void* inner) { *static_cast<std::string*>(inner) += '('; }, text);
    *static_cast<std::string*>(text) += ')';
  };
  add('a');
  ASSERT_TRUE(CFRunLoopStartThread(loop));
  std::thread([&] { ASSERT_TRUE(CFRunLoopStartThread(loop)); }).join();
  CFRunLoopEndThread(loop);
  add('b');
  EXPECT_FALSE(NSThread::isMainThread());
  EXPECT_EQ(run(1), kCFRunLoopRunFinished);
  EXPECT_TRUE(CFRunLoopPerformAndWait(loop, performed, &order));
  EXPECT_EQ(order, "ab()");

  CFRunLoopEndThread(loop);
  CFRunLoopEndThread(loop);
  EXPECT_TRUE(NSThread::isMainThread());
  EXPECT_TRUE(CFRunLoopPerformAndWait(loop, performed, &order));
  MainLoop::instance().add([&] { order += CFRunLoopStartThread(loop) ? '?' : 'c'; });
  EXPECT_EQ(order, "ab()()");
  EXPECT_EQ(run(0), kCFRunLoopRunTimedOut);
  EXPECT_EQ(order, "ab()()c");
}

}  // namespace

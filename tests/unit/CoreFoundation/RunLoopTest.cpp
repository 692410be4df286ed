// The main queue and the loop that runs it. These tests run on the main thread, as gtest_main does.

#include <CoreFoundation/CFRunLoop.h>
#include <Foundation/NSOperation.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>

namespace {

CFRunLoopRunResult run(double seconds, bool returnAfterOne = false) {
  return CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, returnAfterOne);
}

TEST(RunLoopTest, RunsBlocksInOrderAndThoseTheyAddLaterOnTheMainThreadAlone) {
  NSOperationQueue& queue = NSOperationQueue::mainQueue();
  std::string order;
  queue.addOperationWithBlock([&] {
    order += 'a';
    queue.addOperationWithBlock([&] { order += 'c'; });
  });
  queue.addOperationWithBlock(nullptr);
  queue.addOperationWithBlock([&] { order += 'b'; });

  std::thread([] { EXPECT_EQ(run(0), kCFRunLoopRunFinished); }).join();
  EXPECT_EQ(order, "");
  for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(run(seconds), kCFRunLoopRunTimedOut) << seconds;
    EXPECT_EQ(order, seconds == 0 ? "ab" : "abc") << "a run without time ends though a block adds another";
  }
}

TEST(RunLoopTest, AWaitingRunIsWokenByABlockOrAStopAndAnEarlierStopEndsTheNextRun) {
  constexpr double Forever = std::numeric_limits<double>::infinity();
  const std::jthread adder([] { NSOperationQueue::mainQueue().addOperationWithBlock([] {}); });
  EXPECT_EQ(run(Forever, true), kCFRunLoopRunHandledSource);
  std::thread stopper([] { CFRunLoopStop(CFRunLoopGetMain()); });
  EXPECT_EQ(run(Forever), kCFRunLoopRunStopped);
  stopper.join();
  CFRunLoopStop(CFRunLoopGetMain());
  EXPECT_EQ(run(Forever), kCFRunLoopRunStopped);
  EXPECT_EQ(run(0), kCFRunLoopRunTimedOut);
}

}  // namespace

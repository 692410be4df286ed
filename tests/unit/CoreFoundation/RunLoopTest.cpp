// The main queue and the loop that runs it. These tests run on the main thread, as gtest_main does.

#include <CoreFoundation/CFRunLoop.h>
#include <Foundation/NSOperation.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <thread>

namespace {

constexpr double Forever = std::numeric_limits<double>::infinity();

void add(std::function<void()> block) {
  NSOperationQueue::mainQueue().addOperationWithBlock(std::move(block));
}

CFRunLoopRunResult run(double seconds, Boolean returnAfterOne = true) {
  return CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, returnAfterOne);
}

TEST(RunLoopTest, RunsBlocksInOrderAndThoseTheyAddLater) {
  NSRunLoop& loop = NSRunLoop::mainRunLoop();
  std::string order;
  add([&] {
    order += 'a';
    add([&] { order += 'c'; });
  });
  add(nullptr);
  add([&] { order += 'b'; });

  std::thread([&] {
    EXPECT_FALSE(loop.runOneBlock(0));
    loop.runUntilIdle();
    EXPECT_EQ(run(0), kCFRunLoopRunFinished);
  }).join();
  EXPECT_EQ(order, "") << "nothing runs on another thread";
  EXPECT_TRUE(loop.runForSeconds(0));
  EXPECT_EQ(order, "ab") << "a run without time ends though a block adds another";
  loop.runUntilIdle();
  EXPECT_EQ(order, "abc");
}

TEST(RunLoopTest, AWaitingRunIsWokenByABlockOrAStopFromAnotherThread) {
  std::thread::id ranOn;
  std::thread adder([&] { add([&] { ranOn = std::this_thread::get_id(); }); });
  EXPECT_EQ(run(Forever), kCFRunLoopRunHandledSource);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  adder.join();

  std::thread stopper([] { CFRunLoopStop(CFRunLoopGetMain()); });
  EXPECT_EQ(run(Forever, false), kCFRunLoopRunStopped);
  stopper.join();
}

TEST(RunLoopTest, AStopBetweenTwoRunsEndsTheNextOneAlone) {
  CFRunLoopStop(CFRunLoopGetMain());
  EXPECT_EQ(run(Forever, false), kCFRunLoopRunStopped);
  for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(run(seconds, false), kCFRunLoopRunTimedOut) << seconds;
  }
}

}  // namespace

// The main queue and the loop that runs it. These tests run on the main thread, as gtest_main does.

#include <CoreFoundation/CFRunLoop.h>
#include <Foundation/NSOperation.h>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr double Forever = std::numeric_limits<double>::infinity();

void add(std::function<void()> block) {
  NSOperationQueue::mainQueue().addOperationWithBlock(std::move(block));
}

TEST(RunLoopTest, RunsBlocksInOrderAndThoseTheyAddUntilIdle) {
  std::vector<int> order;
  add([&] {
    order.push_back(1);
    add([&] { order.push_back(3); });
  });
  add(nullptr);
  add([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());

  NSRunLoop::mainRunLoop().runUntilIdle();

  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(RunLoopTest, NothingRunsOnAnotherThread) {
  bool ran = false;
  add([&] { ran = true; });

  std::thread([] {
    EXPECT_FALSE(NSThread::isMainThread());
    EXPECT_FALSE(NSRunLoop::mainRunLoop().runForSeconds(0));
    EXPECT_FALSE(NSRunLoop::mainRunLoop().runOneBlock(0));
    NSRunLoop::mainRunLoop().runUntilIdle();
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false), kCFRunLoopRunFinished);
  }).join();

  EXPECT_TRUE(NSThread::isMainThread());
  EXPECT_FALSE(ran);
  EXPECT_TRUE(NSRunLoop::mainRunLoop().runOneBlock(0));
  EXPECT_TRUE(ran);
}

TEST(RunLoopTest, ARunWithoutTimeEndsThoughABlockAddsItselfAgain) {
  int runs = 0;
  std::function<void()> again = [&] {
    if (++runs < 1000) add(again);
  };
  add(again);

  EXPECT_TRUE(NSRunLoop::mainRunLoop().runForSeconds(0));

  EXPECT_EQ(runs, 1);
  NSRunLoop::mainRunLoop().runUntilIdle();
}

TEST(RunLoopTest, AWaitingRunIsWokenByABlockFromAnotherThread) {
  std::thread::id ranOn;
  std::thread other([&] { add([&] { ranOn = std::this_thread::get_id(); }); });

  EXPECT_TRUE(NSRunLoop::mainRunLoop().runOneBlock(Forever));

  other.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(RunLoopTest, StopEndsTheCurrentRunAndTheNextOne) {
  NSRunLoop& loop = NSRunLoop::mainRunLoop();

  std::thread other([&] { loop.stop(); });
  EXPECT_FALSE(loop.runForSeconds(Forever));
  other.join();

  loop.stop();
  EXPECT_FALSE(loop.runForSeconds(Forever));
  EXPECT_TRUE(loop.runForSeconds(0)) << "a stop ends one run only";
}

TEST(RunLoopTest, TheCInterfaceTellsWhyItReturned) {
  const auto run = [](double seconds) { return CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, true); };
  add([] {});
  add([] {});

  EXPECT_EQ(run(Forever), kCFRunLoopRunHandledSource);
  EXPECT_EQ(run(std::numeric_limits<double>::quiet_NaN()), kCFRunLoopRunHandledSource);
  EXPECT_EQ(run(-1), kCFRunLoopRunTimedOut);
  CFRunLoopStop(CFRunLoopGetMain());
  EXPECT_EQ(run(Forever), kCFRunLoopRunStopped);
}

}  // namespace

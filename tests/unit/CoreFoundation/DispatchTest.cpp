#include <dispatch/dispatch.h>

#include <CoreFoundation/CFRef.h>
#include <gtest/gtest.h>
#include <runtime/NSObject.h>
#include <runtime/Scheduler.h>
#include <support/SimulationScheduler.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

namespace {

using Queue = CFRef<dispatch_queue_t>;

Queue makeQueue(const char* label) {
  return Queue::adopt(dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL));
}

/// Adds a closure, which is held until it has run.
void dispatch_async(dispatch_queue_t queue, std::function<void()> block) {
  dispatch_async_f(queue, new std::function<void()>(std::move(block)), [](void* context) {
    const std::unique_ptr<std::function<void()>> taken(static_cast<std::function<void()>*>(context));
    (*taken)();
  });
}

class DispatchTest : public testing::Test {
 protected:
  ~DispatchTest() override { waitUntilNothingIsLeft(); }
  void waitUntilNothingIsLeft() const {
    const auto isLeft = [&] { return NSObject::liveObjectCount() != _objectsBefore || runtime::liveLaneCount() != 0; };
    for (int turns = 0; isLeft() && turns < 10'000'000; ++turns) std::this_thread::yield();
    ASSERT_FALSE(isLeft());
  }

 private:
  const std::int64_t _objectsBefore = NSObject::liveObjectCount();
};

TEST_F(DispatchTest, AnItemMayGiveBackTheLastReferenceAndNothingIsLeftAfterASynchronousOne) {
  std::atomic<int> runs{0};
  for (int round = 0; round < 1000; ++round) {
    const dispatch_queue_t asynchronous = dispatch_queue_create(nullptr, nullptr);
    // The item that it adds comes to a queue to which nobody refers any more.
    dispatch_async(asynchronous, [&, asynchronous] {
      dispatch_async(asynchronous, [&] { ++runs; });
      dispatch_release(asynchronous);
    });
    const dispatch_queue_t synchronous = dispatch_queue_create(nullptr, nullptr);
    if (round % 2 == 0) dispatch_async(synchronous, [] {});
    dispatch_sync(synchronous, [=] { dispatch_release(synchronous); });
    waitUntilNothingIsLeft();
    ASSERT_EQ(runs, round + 1);

    const dispatch_queue_t released = dispatch_queue_create("device", nullptr);
    dispatch_async(released, [] {});
    dispatch_sync(released, [] {});
    dispatch_release(released);
    ASSERT_EQ(runtime::liveLaneCount(), 0);
  }
}

TEST(DispatchDeathTest, WaitingForTheQueueOneRunsOnAbortsWithItsName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto deadlock = [](dispatch_queue_t queue) { dispatch_sync(queue, [queue] { dispatch_sync(queue, [] {}); }); };
  const auto deadlockThroughABusyQueue = [](dispatch_queue_t queue) {
    const test::SimulationScheduler scheduler;  // keeps the other queue busy until it is waited for
    const Queue other = makeQueue("other");
    dispatch_async(other.get(), [] {});
    dispatch_sync(queue, [&] { dispatch_sync(other.get(), [queue] { dispatch_sync(queue, [] {}); }); });
  };

  EXPECT_DEATH(deadlock(makeQueue("Camera 1").get()), "current queue \"Camera 1\"");
  EXPECT_DEATH(deadlockThroughABusyQueue(makeQueue("Camera 2").get()), "current queue \"Camera 2\"");
}

}  // namespace

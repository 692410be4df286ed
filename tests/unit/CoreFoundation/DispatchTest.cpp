#include <dispatch/dispatch.h>

#include <CoreFoundation/CFRef.h>
#include <gtest/gtest.h>
#include <support/SimulationScheduler.h>

namespace {

using Queue = CFRef<dispatch_queue_t>;

Queue makeQueue(const char* label) {
  return Queue::adopt(dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL));
}

TEST(DispatchDeathTest, WaitingForTheQueueOneRunsOnAbortsWithItsName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto deadlock = [](dispatch_queue_t queue) { dispatch_sync(queue, [queue] { dispatch_sync(queue, [] {}); }); };
  const auto deadlockThroughABusyQueue = [](dispatch_queue_t queue) {
    const test::SimulationScheduler scheduler;  // keeps the other queue busy until it is waited for
    const Queue other = makeQueue("other");
    dispatch_async_f(other.get(), nullptr, [](void*) {});
    dispatch_sync(queue, [&] { dispatch_sync(other.get(), [queue] { dispatch_sync(queue, [] {}); }); });
  };

  EXPECT_DEATH(deadlock(makeQueue("Camera 1").get()), "current queue \"Camera 1\"");
  EXPECT_DEATH(deadlockThroughABusyQueue(makeQueue("Camera 2").get()), "current queue \"Camera 2\"");
}

}  // namespace

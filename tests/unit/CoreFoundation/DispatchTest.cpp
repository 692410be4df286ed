#include <dispatch/dispatch.h>

#include <CoreFoundation/CFRef.h>
#include <Foundation/NSObject.h>
#include <dispatch/Scheduler.h>
#include <gtest/gtest.h>
#include <support/AllocationCount.h>
#include <support/SimulationScheduler.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Queue = CFRef<dispatch_queue_t>;

Queue makeQueue(const char* label) {
  return Queue::adopt(dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL));
}

/// Holds a queue's thread in an item until told to go on.
class Roadblock {
 public:
  explicit Roadblock(dispatch_queue_t queue) {
    dispatch_async(queue, [this] {
      _entered.signal();
      _mayLeave.wait();
    });
    _entered.wait();
  }
  void remove() { _mayLeave.signal(); }

 private:
  runtime::Event _entered;
  runtime::Event _mayLeave;
};

class DispatchTest : public testing::Test {
 protected:
  ~DispatchTest() override {
    EXPECT_EQ(NSObject::liveObjectCount(), objectsBefore);
    EXPECT_EQ(runtime::liveLaneCount(), 0);
  }
  void waitUntilAllObjectsAreGone() const {
    while (NSObject::liveObjectCount() != objectsBefore) std::this_thread::yield();
  }

  const std::int64_t objectsBefore = NSObject::liveObjectCount();
};

TEST_F(DispatchTest, ItemsOfManyThreadsRunOneAtATimeAndInTheOrderOfEachThread) {
  constexpr int Threads = 4;
  constexpr int ItemsPerThread = 2000;
  for (const int synchronousEvery : {7, 1}) {  // in the second run, the queue never has a thread of its own
    const Queue queue = makeQueue("order");
    std::vector<int> next(Threads, 0);  // not atomic: the queue is what orders the accesses
    bool inOrder = true;

    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < Threads; ++thread) {
      threads.emplace_back([&, thread] {
        for (int item = 0; item < ItemsPerThread; ++item) {
          const auto work = [&, thread, item] {
            inOrder = inOrder && next[thread]++ == item && dispatch_queue_is_current(queue.get());
          };
          item % synchronousEvery == 0 ? dispatch_sync(queue.get(), work) : dispatch_async(queue.get(), work);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    dispatch_sync(queue.get(), [] {});

    EXPECT_TRUE(inOrder);
    EXPECT_EQ(next, std::vector<int>(Threads, ItemsPerThread));
  }
}

TEST_F(DispatchTest, AnIdleQueueRunsASynchronousItemOnTheCallerAndCountsAsBusyMeanwhile) {
  const Queue queue = makeQueue("inline");
  std::string order;
  dispatch_async(queue.get(), [] {});  // so that the queue's thread exists and has to be woken
  dispatch_sync(queue.get(), [] {});

  dispatch_sync(queue.get(), [&, caller = std::this_thread::get_id()] {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    dispatch_async(queue.get(), [&] { order += 'b'; });
    std::thread([&] { EXPECT_FALSE(dispatch_queue_is_current(queue.get())); }).join();
    order += 'a';
  });
  dispatch_sync(queue.get(), [&] { order += 'c'; });

  EXPECT_EQ(order, "abc");
}

TEST_F(DispatchTest, WaitingItemsKeepTheQueueAndRunAfterItsLastRelease) {
  std::atomic<int> runs{0};
  const dispatch_queue_t queue = dispatch_queue_create("kept", nullptr);
  Roadblock roadblock(queue);
  for (int item = 0; item < 20; ++item) dispatch_async(queue, [&] { ++runs; });
  // The last of them adds one more to a queue to which nobody refers any more.
  dispatch_async(queue, [&] { dispatch_async(queue, [&] { ++runs; }); });

  dispatch_release(queue);
  EXPECT_EQ(runs, 0);
  roadblock.remove();
  waitUntilAllObjectsAreGone();

  EXPECT_EQ(runs, 21);
}

TEST_F(DispatchTest, AnItemMayGiveBackTheLastReference) {
  for (int round = 0; round < 500; ++round) {
    const dispatch_queue_t asynchronous = dispatch_queue_create(nullptr, nullptr);
    dispatch_async(asynchronous, [=] { dispatch_release(asynchronous); });

    const dispatch_queue_t synchronous = dispatch_queue_create(nullptr, nullptr);
    if (round % 2 == 0) dispatch_async(synchronous, [] {});
    dispatch_sync(synchronous, [=] { dispatch_release(synchronous); });
  }
  waitUntilAllObjectsAreGone();
}

TEST_F(DispatchTest, NothingIsLeftOfAQueueReleasedAfterASynchronousItem) {
  for (int round = 0; round < 2000; ++round) {
    const dispatch_queue_t queue = dispatch_queue_create("device", nullptr);
    dispatch_async(queue, [] {});
    dispatch_sync(queue, [] {});
    dispatch_release(queue);
    ASSERT_EQ(NSObject::liveObjectCount(), objectsBefore);
    ASSERT_EQ(runtime::liveLaneCount(), 0);
  }
}

TEST_F(DispatchTest, AsynchronousItemsDoNotAllocateOnceTheQueueHasHeldAsMany) {
  const Queue queue = makeQueue("steady");
  const auto fillAndDrain = [&] {
    Roadblock roadblock(queue.get());
    const std::int64_t before = allocationCount();
    for (int item = 0; item < 50; ++item) dispatch_async_f(queue.get(), nullptr, [](void*) {});
    const std::int64_t made = allocationCount() - before;
    roadblock.remove();
    dispatch_sync(queue.get(), [] {});
    return made;
  };

  EXPECT_EQ(fillAndDrain() > 0, AllocationsAreCounted) << "the counter does not see the frameworks";
  for (int round = 0; round < 10; ++round) EXPECT_EQ(fillAndDrain(), 0);
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

class FunctionClient final : public runtime::LaneClient {
 public:
  std::atomic<runtime::Nanoseconds> due{runtime::Never};
  std::function<void()> item;

 private:
  runtime::Nanoseconds nextItemTime() override { return due; }
  void runNextItem() override { item(); }
};

TEST(LaneTest, NoWakeIsMissedWhateverTheLaneWaitsFor) {
  const runtime::Nanoseconds inAnHour = runtime::Scheduler::current().now() + 3600 * runtime::NanosecondsPerSecond;
  FunctionClient client;
  runtime::Event ran;
  int round = 0;
  client.item = [&] {
    client.due = round % 2 ? inAnHour : runtime::Never;
    ran.signal();
  };
  const auto lane = runtime::Scheduler::current().makeLane("a name longer than a thread's", client);

  for (; round < 20000; ++round) {
    client.due = 0;
    lane->wake();
    ASSERT_TRUE(ran.wait());
  }
}

TEST(LaneTest, TheEndWaitsForTheItemInProgress) {
  FunctionClient client;
  runtime::Event entered;
  bool finished = false;  // not atomic: the end of the lane is what orders it
  client.due = 0;
  client.item = [&] {
    if (!finished) entered.signal();
    std::this_thread::yield();
    finished = true;
  };
  auto lane = runtime::Scheduler::current().makeLane("busy", client);
  entered.wait();

  lane.reset();

  EXPECT_TRUE(finished);
  EXPECT_EQ(runtime::liveLaneCount(), 0);
}

}  // namespace

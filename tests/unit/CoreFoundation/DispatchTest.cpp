#include <dispatch/dispatch.h>

#include <CoreFoundation/CFRef.h>
#include <Foundation/NSObject.h>
#include <dispatch/Scheduler.h>

#include <gtest/gtest.h>
#include <support/VirtualScheduler.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "AllocationCount.h"

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

void waitUntilAllObjectsAreGone(std::int64_t objectsBefore) {
  while (NSObject::liveObjectCount() != objectsBefore) std::this_thread::yield();
}

class DispatchTest : public testing::Test {
 protected:
  ~DispatchTest() override {
    EXPECT_EQ(NSObject::liveObjectCount(), objectsBefore);
    EXPECT_EQ(runtime::liveLaneCount(), 0);
  }

  const std::int64_t objectsBefore = NSObject::liveObjectCount();
};

TEST_F(DispatchTest, ItemsOfManyThreadsRunOneAtATimeAndInTheOrderOfEachThread) {
  constexpr int Threads = 4;
  constexpr int ItemsPerThread = 2000;
  const Queue queue = makeQueue("order");
  std::vector<int> next(Threads, 0);  // not atomic: the queue is what orders the accesses
  bool inOrder = true;

  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < Threads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int item = 0; item < ItemsPerThread; ++item) {
        const auto work = [&, thread, item] { inOrder = inOrder && next[thread]++ == item; };
        if (item % 7 == 0) {
          dispatch_sync(queue.get(), work);
        } else {
          dispatch_async(queue.get(), work);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  dispatch_sync(queue.get(), [] {});

  EXPECT_TRUE(inOrder);
  EXPECT_EQ(next, std::vector<int>(Threads, ItemsPerThread));
}

TEST_F(DispatchTest, AnIdleQueueRunsASynchronousItemOnTheCallerAndCountsAsBusyMeanwhile) {
  const Queue queue = makeQueue("inline");
  std::string order;
  dispatch_async(queue.get(), [] {});  // so that the queue's thread exists and has to be woken
  dispatch_sync(queue.get(), [] {});

  dispatch_sync(queue.get(), [&, caller = std::this_thread::get_id()] {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_TRUE(dispatch_queue_is_current(queue.get()));
    dispatch_async(queue.get(), [&] { order += 'b'; });
    std::thread([&] { EXPECT_FALSE(dispatch_queue_is_current(queue.get())); }).join();
    order += 'a';
  });
  dispatch_sync(queue.get(), [&] { order += 'c'; });

  EXPECT_FALSE(dispatch_queue_is_current(queue.get()));
  EXPECT_EQ(order, "abc");
}

TEST_F(DispatchTest, ABusyQueueRunsASynchronousItemInItsTurn) {
  const Queue queue = makeQueue("busy");
  std::string order;
  Roadblock roadblock(queue.get());
  dispatch_async(queue.get(), [&] { order += 'a'; });

  std::thread opener([&] { roadblock.remove(); });
  dispatch_sync(queue.get(), [&] {
    EXPECT_TRUE(dispatch_queue_is_current(queue.get()));
    order += 'b';
  });

  EXPECT_EQ(order, "ab");
  opener.join();
}

TEST_F(DispatchTest, TwoThreadsMayMeetOnAQueueThatNeverHadAnAsynchronousItem) {
  const Queue queue = makeQueue("meeting");
  int count = 0;
  const auto countMany = [&] {
    for (int round = 0; round < 2000; ++round) dispatch_sync(queue.get(), [&] { ++count; });
  };

  std::thread other(countMany);
  countMany();
  other.join();

  EXPECT_EQ(count, 4000);
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
  waitUntilAllObjectsAreGone(objectsBefore);

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
  waitUntilAllObjectsAreGone(objectsBefore);
}

/// Its lanes run their items inside `wake`: the earliest moment at which a thread could.
class EagerScheduler final : public runtime::Scheduler {
 public:
  EagerScheduler() { install(this); }
  ~EagerScheduler() override { install(nullptr); }

  runtime::Nanoseconds now() override { return 0; }
  void sleepUntil(runtime::Nanoseconds) override {}
  bool wait(runtime::Event& event, runtime::Nanoseconds) override { return event.takeSignal(); }
  std::unique_ptr<runtime::Lane> makeLane(std::string_view, runtime::LaneClient& client) override {
    return std::make_unique<EagerLane>(client);
  }

 private:
  struct EagerLane final : runtime::Lane {
    explicit EagerLane(runtime::LaneClient& laneClient) : client(laneClient) {}

    void wake() override {
      const std::int64_t lanes = runtime::liveLaneCount();
      client.runNextItem();
      EXPECT_EQ(runtime::liveLaneCount(), lanes) << "the lane ended while it was being woken";
    }
    bool isCurrent() const override { return true; }

    runtime::LaneClient& client;
  };
};

TEST_F(DispatchTest, AQueueOutlivesTheWakingOfItsThread) {
  const EagerScheduler scheduler;
  const dispatch_queue_t asynchronous = dispatch_queue_create(nullptr, nullptr);
  dispatch_async(asynchronous, [=] { dispatch_release(asynchronous); });

  const dispatch_queue_t synchronous = dispatch_queue_create(nullptr, nullptr);
  dispatch_sync(synchronous, [=] { dispatch_async(synchronous, [=] { dispatch_release(synchronous); }); });
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
  constexpr int Items = 50;
  const Queue queue = makeQueue("steady");
  std::atomic<int> runs{0};
  const auto fillAndDrain = [&] {
    Roadblock roadblock(queue.get());
    const std::int64_t before = allocationCount();
    for (int item = 0; item < Items; ++item) {
      dispatch_async_f(queue.get(), &runs, [](void* counter) { ++*static_cast<std::atomic<int>*>(counter); });
    }
    const std::int64_t made = allocationCount() - before;
    roadblock.remove();
    dispatch_sync(queue.get(), [] {});
    return made;
  };

  EXPECT_EQ(fillAndDrain() > 0, AllocationsAreCounted) << "the counter does not see the frameworks";
  for (int round = 0; round < 10; ++round) EXPECT_EQ(fillAndDrain(), 0);
  EXPECT_EQ(runs, 11 * Items);
}

TEST_F(DispatchTest, NullQueuesAndItemsAreIgnored) {
  const Queue queue = makeQueue("patient");

  dispatch_async_f(queue.get(), nullptr, nullptr);
  dispatch_sync_f(queue.get(), nullptr, nullptr);
  dispatch_async(queue.get(), nullptr);
  dispatch_sync(nullptr, [] { FAIL(); });
  dispatch_async(nullptr, [] { FAIL(); });
  dispatch_release(nullptr);

  EXPECT_FALSE(dispatch_queue_is_current(nullptr));
  EXPECT_STREQ(dispatch_queue_get_label(nullptr), "");
}

TEST(DispatchDeathTest, WaitingForTheQueueOneRunsOnAbortsWithItsName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto deadlock = [](dispatch_queue_t queue) { dispatch_sync(queue, [queue] { dispatch_sync(queue, [] {}); }); };
  const auto deadlockThroughABusyQueue = [](dispatch_queue_t queue) {
    const test::VirtualScheduler scheduler;  // keeps the other queue busy until it is waited for
    const Queue other = makeQueue("other");
    dispatch_async(other.get(), [] {});
    dispatch_sync(queue, [&] { dispatch_sync(other.get(), [queue] { dispatch_sync(queue, [] {}); }); });
  };

  EXPECT_DEATH(deadlock(makeQueue("Camera 1").get()), "current queue \"Camera 1\"");
  EXPECT_DEATH(deadlockThroughABusyQueue(makeQueue("Camera 2").get()), "current queue \"Camera 2\"");
}

}  // namespace

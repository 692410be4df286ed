// Lanes and events: on threads, and on a scheduler that runs everything on one thread in virtual time.

#include <Foundation/NSOperation.h>
#include <dispatch/Scheduler.h>
#include <dispatch/dispatch.h>

#include <gtest/gtest.h>
#include <support/VirtualScheduler.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace {

using runtime::Nanoseconds;

class FunctionClient final : public runtime::LaneClient {
 public:
  std::atomic<Nanoseconds> due{runtime::Never};
  std::function<void()> item;

 private:
  Nanoseconds nextItemTime() override { return due; }
  void runNextItem() override { item(); }
};

TEST(LaneTest, NoWakeIsMissed) {
  FunctionClient client;
  runtime::Event ran;
  client.item = [&] {
    client.due = runtime::Never;
    ran.signal();
  };
  const auto lane = runtime::Scheduler::current().makeLane("pulse", client);

  for (int round = 0; round < 20000; ++round) {
    client.due = 0;
    lane->wake();
    ASSERT_TRUE(ran.wait());
  }
}

TEST(LaneTest, AWakeReplacesTheTimeTheLaneWaitsFor) {
  FunctionClient client;
  runtime::Event ran;
  client.due = runtime::Scheduler::current().now() + 3600 * runtime::NanosecondsPerSecond;
  client.item = [&] {
    client.due = runtime::Never;
    ran.signal();
  };
  const auto lane = runtime::Scheduler::current().makeLane("a name longer than a thread's", client);
  EXPECT_FALSE(ran.wait(0));

  client.due = 0;
  lane->wake();

  EXPECT_TRUE(ran.wait());
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

/// Ends its lane and itself in its only item.
class EphemeralClient final : public runtime::LaneClient {
 public:
  explicit EphemeralClient(runtime::Event& ended) : _ended(ended) {}

  void start() {
    _lane = runtime::Scheduler::current().makeLane("ephemeral", *this);
    EXPECT_FALSE(_lane->isCurrent());
    _started.signal();
  }

 private:
  Nanoseconds nextItemTime() override { return 0; }
  void runNextItem() override {
    _started.wait();
    EXPECT_TRUE(_lane->isCurrent());
    runtime::Event& ended = _ended;
    _lane.reset();
    delete this;
    ended.signal();
  }

  runtime::Event _started;
  runtime::Event& _ended;
  std::unique_ptr<runtime::Lane> _lane;
};

TEST(LaneTest, AnItemMayEndItsOwnLaneAndItsClient) {
  for (int round = 0; round < 200; ++round) {
    runtime::Event ended;
    (new EphemeralClient(ended))->start();
    ended.wait();
  }
  EXPECT_EQ(runtime::liveLaneCount(), 0);
}

TEST(EventTest, ASignalIsKeptForTheNextWaitAndTakenByIt) {
  runtime::Event event;
  event.signal();
  event.signal();

  EXPECT_TRUE(event.wait(0));
  EXPECT_FALSE(event.wait(0));
}

TEST(VirtualTimeTest, ClocksQueuesAndTheRunLoopWorkOnOneThread) {
  test::VirtualScheduler scheduler;
  std::string happened;
  {
    const dispatch_queue_t queue = dispatch_queue_create("frames", nullptr);
    FunctionClient clock;
    int ticks = 0;
    clock.due = scheduler.now() + runtime::NanosecondsPerSecond;
    clock.item = [&] {
      clock.due = ++ticks < 3 ? clock.due + runtime::NanosecondsPerSecond : runtime::Never;
      dispatch_async(queue, [&] { happened += 'f'; });
      if (ticks == 2) NSOperationQueue::mainQueue().addOperationWithBlock([&] { happened += 'm'; });
    };
    const auto lane = scheduler.makeLane("clock", clock);

    EXPECT_TRUE(NSRunLoop::mainRunLoop().runForSeconds(3600));
    EXPECT_EQ(happened, "fmff");

    dispatch_async(queue, [&] { happened += 'a'; });
    dispatch_sync(queue, [&] { happened += 's'; });
    EXPECT_EQ(happened, "fmffas");
    dispatch_release(queue);
  }
  EXPECT_EQ(runtime::liveLaneCount(), 0);
}

}  // namespace

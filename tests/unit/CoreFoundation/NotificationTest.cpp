#include <Foundation/NSNotification.h>
#include <gtest/gtest.h>
#include <support/MainLoop.h>

#include <thread>

namespace {

constexpr NSNotificationName Connected = "Connected";

class Thing final : public NSObject {};

TEST(NotificationTest, MainQueueBlocksRunAtOnceOnTheMainThreadAndOtherwiseWaitForItsLoop) {
  NSNotificationCenter& center = NSNotificationCenter::defaultCenter();
  const auto object = makeRef<Thing>();
  const auto postFromAnotherThread = [&](NSObject* about) {
    std::thread([&] { center.postNotificationName(Connected, about); }).join();
  };
  int runs = 0;
  const auto count = [&](NSNotification&) { runs += NSThread::isMainThread() ? 1 : 100; };
  const auto token = center.addObserverForName(Connected, nullptr, &NSOperationQueue::mainQueue(), count);

  center.postNotificationName(Connected, nullptr);
  EXPECT_EQ(runs, 1);
  postFromAnotherThread(nullptr);
  EXPECT_EQ(runs, 1);
  runMainLoopUntilIdle();
  EXPECT_EQ(runs, 2);

  postFromAnotherThread(object.get());
  EXPECT_GT(object->retainCount(), 1);
  center.removeObserver(token.get());
  EXPECT_EQ(object->retainCount(), 1) << "a removal lets go of what waiting blocks hold";
  runMainLoopUntilIdle();
  EXPECT_EQ(runs, 2) << "and they never run";
}

}  // namespace

#include <Foundation/NSNotification.h>
#include <gtest/gtest.h>
#include <support/MainLoop.h>

#include <functional>
#include <string>
#include <thread>

namespace {

constexpr NSNotificationName Connected = "Connected";
constexpr NSNotificationName Disconnected = "Disconnected";

class Thing final : public NSObject {};

/// Every test leaves no observer and no object behind, without running the main loop once more.
class NotificationTest : public testing::Test {
 protected:
  ~NotificationTest() override { EXPECT_EQ(NSObject::liveObjectCount(), _objectsBefore); }

  Ref<NSObject> observe(NSNotificationName name, std::function<void()> block, NSObject* object = nullptr,
                        NSOperationQueue* queue = nullptr) {
    return center.addObserverForName(name, object, queue, [block = std::move(block)](NSNotification&) { block(); });
  }
  void post(NSNotificationName name, NSObject* object = nullptr) { center.postNotificationName(name, object); }
  void postFromAnotherThread(NSObject* object = nullptr) {
    std::thread([&] { post(Connected, object); }).join();
  }

  NSNotificationCenter& center = NSNotificationCenter::defaultCenter();

 private:
  const std::int64_t _objectsBefore = NSObject::liveObjectCount();
};

TEST_F(NotificationTest, ReachesMatchingObserversInTheOrderOfRegistration) {
  const Ref<NSObject> camera = makeRef<Thing>(), microphone = makeRef<Thing>();
  std::string reached;
  const auto reach = [&](char letter) { return [&, letter] { reached += letter; }; };
  const Ref<NSObject> tokens[] = {observe(Connected, reach('a')), observe(Connected, reach('b'), camera.get()),
                                  observe(Disconnected, reach('c')), observe(Connected, reach('d'))};

  for (const auto& object : {camera, microphone, Ref<NSObject>()}) post(Connected, object.get());
  post(Disconnected, camera.get());

  EXPECT_EQ(reached, "abdadadc");
  for (const auto& token : tokens) center.removeObserver(token.get());
}

TEST_F(NotificationTest, MainQueueBlocksRunAtOnceOnTheMainThreadAndOtherwiseWaitForItsLoop) {
  const auto object = makeRef<Thing>();
  int runs = 0;
  const auto token = observe(
      Connected, [&] { runs += NSThread::isMainThread() ? 1 : 100; }, nullptr, &NSOperationQueue::mainQueue());

  post(Connected);
  EXPECT_EQ(runs, 1);
  postFromAnotherThread();
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

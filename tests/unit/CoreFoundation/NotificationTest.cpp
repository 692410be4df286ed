#include <Foundation/NSNotification.h>
#include <dispatch/Scheduler.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr NSNotificationName Connected = "Connected";
constexpr NSNotificationName Disconnected = "Disconnected";

class Thing final : public NSObject {};

/// Every test leaves no observer and no object behind, without running the main loop once more.
class NotificationTest : public testing::Test {
 protected:
  ~NotificationTest() override {
    EXPECT_EQ(center.observerCount(), 0U);
    EXPECT_EQ(NSObject::liveObjectCount(), _objectsBefore);
  }

  Ref<NSObject> observe(NSNotificationName name, std::function<void()> block, NSObject* object = nullptr,
                        NSOperationQueue* queue = nullptr) {
    return center.addObserverForName(name, object, queue, [block = std::move(block)](NSNotification&) { block(); });
  }
  Ref<NSObject> observeOnMainQueue(NSNotificationName name, std::function<void()> block) {
    return observe(name, std::move(block), nullptr, &NSOperationQueue::mainQueue());
  }
  void post(NSNotificationName name, NSObject* object = nullptr) { center.postNotificationName(name, object); }
  void postFromAnotherThread(NSNotificationName name, NSObject* object = nullptr) {
    std::thread([&] { post(name, object); }).join();
  }

  NSNotificationCenter& center = NSNotificationCenter::defaultCenter();

 private:
  const std::int64_t _objectsBefore = NSObject::liveObjectCount();
};

TEST_F(NotificationTest, ReachesMatchingObserversInTheOrderOfRegistration) {
  const auto camera = makeRef<Thing>(), microphone = makeRef<Thing>();
  std::string reached;
  const auto reach = [&](char letter) { return [&, letter] { reached += letter; }; };
  const Ref<NSObject> tokens[] = {observe(Connected, reach('a')), observe(Connected, reach('b'), camera.get()),
                                  observe(Disconnected, reach('c')), observe(Connected, reach('d'))};

  for (NSObject* object : {static_cast<NSObject*>(camera.get()), static_cast<NSObject*>(microphone.get())}) {
    post(Connected, object);
  }
  post(Connected);
  post(Disconnected, camera.get());

  EXPECT_EQ(reached, "abdadadc");
  for (const auto& token : tokens) center.removeObserver(token.get());
}

TEST_F(NotificationTest, MainQueueBlocksRunAtOnceOnTheMainThreadAndOtherwiseWaitForItsLoop) {
  const auto object = makeRef<Thing>();
  int runs = 0;
  const auto token = observeOnMainQueue(Connected, [&] {
    EXPECT_TRUE(NSThread::isMainThread());
    ++runs;
  });

  post(Connected);
  EXPECT_EQ(runs, 1);
  postFromAnotherThread(Connected);
  EXPECT_EQ(runs, 1);
  NSRunLoop::mainRunLoop().runUntilIdle();
  EXPECT_EQ(runs, 2);

  postFromAnotherThread(Connected, object.get());
  EXPECT_GT(object->retainCount(), 1);
  center.removeObserver(token.get());
  EXPECT_EQ(object->retainCount(), 1) << "a removal lets go of what waiting blocks hold";
  NSRunLoop::mainRunLoop().runUntilIdle();
  EXPECT_EQ(runs, 2) << "and they never run";
}

TEST_F(NotificationTest, ABlockMayRemoveItselfAlsoFromANestedRun) {
  int runs = 0;
  auto token = std::make_shared<Ref<NSObject>>();
  *token = observe(Connected, [this, token, &runs] {  // holds its own token: a cycle that the removal breaks
    if (++runs == 3) center.removeObserver(token->get());
    post(Connected);
  });
  token.reset();

  post(Connected);
  post(Connected);

  EXPECT_EQ(runs, 3);
}

TEST_F(NotificationTest, ObserversThatLeaveOrJoinDuringAPostAreNotReached) {
  const auto object = makeRef<Thing>();
  const auto fail = [] { FAIL() << "ran after the removal"; };
  Ref<NSObject> leaving, leavingOnMain, joining;
  int joiningRuns = 0;
  const auto first = observe(Connected, [&] {
    center.removeObserver(leaving.get());
    center.removeObserver(leavingOnMain.get());
    if (!joining) joining = observe(Connected, [&] { ++joiningRuns; });
  });
  leaving = observe(Connected, fail);
  leavingOnMain = observeOnMainQueue(Connected, fail);

  postFromAnotherThread(Connected, object.get());
  EXPECT_EQ(joiningRuns, 0);
  EXPECT_EQ(object->retainCount(), 1) << "nothing is queued for them either";
  post(Connected);
  EXPECT_EQ(joiningRuns, 1);

  center.removeObserver(first.get());
  center.removeObserver(joining.get());
}

TEST_F(NotificationTest, RemovalsWaitForABlockThatRunsOnAnotherThread) {
  runtime::Event entered;
  bool finished = false;  // not atomic: the removal is what orders it
  const auto token = observe(Connected, [&] {
    entered.signal();
    while (center.observerCount() != 0) std::this_thread::yield();
    finished = true;
  });
  std::thread poster([&] { post(Connected); });
  entered.wait();

  const auto remove = [&] {
    center.removeObserver(token.get());
    EXPECT_TRUE(finished);
  };
  std::thread anotherRemover(remove);
  remove();

  anotherRemover.join();
  poster.join();
}

TEST_F(NotificationTest, PostsAdditionsAndRemovalsMayMeetOnAnyThreads) {
  std::atomic<bool> done{false};
  const auto postUntilDone = [&] {
    while (!done) post(Connected);
  };
  std::thread posters[] = {std::thread(postUntilDone), std::thread(postUntilDone)};

  for (int round = 0; round < 500; ++round) {
    auto alive = std::make_unique<bool>(true);  // gone right after the removal, as a device's state would be
    const auto onPoster = observe(Connected, [flag = alive.get()] { EXPECT_TRUE(*flag); });
    const auto onMain = observeOnMainQueue(Connected, [flag = alive.get()] { EXPECT_TRUE(*flag); });
    NSRunLoop::mainRunLoop().runForSeconds(0);
    center.removeObserver(onPoster.get());
    center.removeObserver(onMain.get());
  }

  done = true;
  for (std::thread& poster : posters) poster.join();
}

}  // namespace

#include <Foundation/NSNotification.h>

#include <Foundation/NSLog.h>
#include <runtime/MainLoop.h>
#include <runtime/Scheduler.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

/// The token. What changes after the construction is guarded by the centre's mutex.
class NSNotificationCenter::Observer final : public NSObject {
 public:
  Observer(NSNotificationName notificationName, const NSObject* limitedTo, bool isForMainThread, Block usingBlock)
      : name(notificationName), object(limitedTo), onMainThread(isForMainThread), block(std::move(usingBlock)) {}

  const std::string name;
  const NSObject* const object;  ///< Compared only; may be gone.
  const bool onMainThread;

  Block block;
  bool removed = false;
  int runsUnderWay = 0;
  runtime::Event ended;  ///< The last run of a removed observer is over. Who waited for it passes it on to the next.
};

NSNotificationCenter::NSNotificationCenter() = default;
NSNotificationCenter::~NSNotificationCenter() = default;

NSNotificationCenter& NSNotificationCenter::defaultCenter() {
  // Never destroyed: devices may still post while the process ends.
  static NSNotificationCenter* const center = new NSNotificationCenter;
  return *center;
}

Ref<NSObject> NSNotificationCenter::addObserverForName(NSNotificationName name, NSObject* object,
                                                       NSOperationQueue* queue, Block usingBlock) {
  if (!usingBlock) return {};
  auto observer = makeRef<Observer>(name, object, queue != nullptr, std::move(usingBlock));
  const std::lock_guard lock(_mutex);
  _observers.push_back(observer);
  return observer;
}

void NSNotificationCenter::removeObserver(NSObject* token) noexcept {
  Ref<Observer> observer;
  bool isRunning = false;
  {
    const std::lock_guard lock(_mutex);
    const auto found = std::ranges::find(_observers, token, [](const auto& each) -> NSObject* { return each.get(); });
    if (found == _observers.end()) return;
    observer = *found;
    observer->removed = true;
    isRunning = observer->runsUnderWay > 0;
    if (!isRunning) _observers.erase(found);
  }
  if (observer->onMainThread) MainLoop::instance().cancel(token);
  if (!isRunning) {
    observer->block = nullptr;
  } else if (!runtime::isWithin(token)) {
    observer->ended.wait();
    observer->ended.signal();
  }
}

void NSNotificationCenter::postNotificationName(NSNotificationName name, NSObject* object,
                                                Ref<NSDictionary> userInfo) noexcept {
  try {
    const std::vector<Ref<Observer>> observers = observersFor(name, object);
    if (observers.empty()) return;
    const auto notification = makeRef<NSNotification>(name, object, std::move(userInfo));
    for (const Ref<Observer>& observer : observers) deliver(observer, notification);
  } catch (const std::bad_alloc&) {
    NSLog("No memory to post %.*s", static_cast<int>(name.size()), name.data());
  }
}

std::vector<Ref<NSNotificationCenter::Observer>> NSNotificationCenter::observersFor(NSNotificationName name,
                                                                                    const NSObject* object) const {
  std::vector<Ref<Observer>> matching;
  const std::lock_guard lock(_mutex);
  std::ranges::copy_if(_observers, std::back_inserter(matching), [&](const Ref<Observer>& each) {
    return (!each->object || each->object == object) && each->name == name && !each->removed;
  });
  return matching;
}

void NSNotificationCenter::deliver(const Ref<Observer>& observer, const Ref<NSNotification>& notification) {
  if (observer->onMainThread && !NSThread::isMainThread()) {
    queueForMainThread(observer, notification);
  } else {
    runBlock(observer, *notification);
  }
}

void NSNotificationCenter::queueForMainThread(const Ref<Observer>& observer, const Ref<NSNotification>& notification) {
  // Under the lock, so that the block is queued before the removal that is to cancel it, or not at all.
  const std::lock_guard lock(_mutex);
  if (observer->removed) return;
  MainLoop::instance().add([this, observer, notification] { runBlock(observer, *notification); }, observer.get());
}

void NSNotificationCenter::runBlock(const Ref<Observer>& observer, NSNotification& notification) noexcept {
  {
    const std::lock_guard lock(_mutex);
    if (observer->removed) return;
    ++observer->runsUnderWay;
  }
  const runtime::Activity run{static_cast<const NSObject*>(observer.get()), runtime::innermostActivity()};
  runtime::innermostActivity() = &run;
  observer->block(notification);
  runtime::innermostActivity() = run.outer;
  endRun(observer);
}

/// The last run of a removed observer does what the removal had to leave.
void NSNotificationCenter::endRun(const Ref<Observer>& observer) {
  {
    const std::lock_guard lock(_mutex);
    if (--observer->runsUnderWay > 0 || !observer->removed) return;
    std::erase(_observers, observer);
  }
  // From here on only this thread and the waiting removers know the observer.
  observer->block = nullptr;
  observer->ended.signal();
}

#include <Foundation/NSNotification.h>

#include <Foundation/MainLoop.h>

#include <algorithm>
#include <utility>

/// The token. What changes after the construction is guarded by the centre's mutex.
class NSNotificationCenter::Observer final : public NSObject {
 public:
  Observer(NSNotificationName notificationName, const NSObject* limitedTo, bool isForMainThread, Block usingBlock)
      : name(notificationName), object(limitedTo), onMainThread(isForMainThread), block(std::move(usingBlock)) {}

  bool matches(NSNotificationName postedName, const NSObject* postedObject) const noexcept {
    return name == postedName && (!object || object == postedObject);
  }

  const std::string name;
  const NSObject* const object;  ///< Compared only; may be gone.
  const bool onMainThread;

  Block block;
  bool removed = false;
  int runsUnderWay = 0;
  std::vector<runtime::Event*> removersWaiting;
};

namespace {

/// The observers whose blocks are under way on a thread, innermost first.
struct RunUnderWay {
  const NSObject* observer;
  const RunUnderWay* outer;
};

thread_local const RunUnderWay* innermostRun = nullptr;

bool isInsideBlockOf(const NSObject* observer) noexcept {
  for (const RunUnderWay* run = innermostRun; run; run = run->outer) {
    if (run->observer == observer) return true;
  }
  return false;
}

}  // namespace

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

void NSNotificationCenter::removeObserver(NSObject* token) {
  runtime::Event ended;
  bool mustWait = false;
  Ref<Observer> removed;  // goes after the unlock: what its block has captured may call back into here
  {
    const std::lock_guard lock(_mutex);
    const auto found = std::ranges::find(_observers, token, [](const Ref<Observer>& each) { return each.get(); });
    if (found == _observers.end()) return;
    Observer& observer = **found;
    observer.removed = true;
    if (observer.runsUnderWay == 0) {
      removed = std::move(*found);
      _observers.erase(found);
    } else if (!isInsideBlockOf(token)) {
      observer.removersWaiting.push_back(&ended);
      mustWait = true;
    }
  }
  MainLoop::instance().cancel(token);
  if (mustWait) ended.wait();
  if (removed) removed->block = nullptr;
}

void NSNotificationCenter::postNotificationName(NSNotificationName name, NSObject* object) {
  const std::vector<Ref<Observer>> observers = observersFor(name, object);
  if (observers.empty()) return;
  const auto notification = makeRef<NSNotification>(name, object);
  for (const Ref<Observer>& observer : observers) deliver(observer, notification);
}

std::size_t NSNotificationCenter::observerCount() const {
  const std::lock_guard lock(_mutex);
  const auto count = std::ranges::count(_observers, false, [](const Ref<Observer>& each) { return each->removed; });
  return static_cast<std::size_t>(count);
}

std::vector<Ref<NSNotificationCenter::Observer>> NSNotificationCenter::observersFor(NSNotificationName name,
                                                                                    const NSObject* object) const {
  std::vector<Ref<Observer>> matching;
  const std::lock_guard lock(_mutex);
  for (const Ref<Observer>& observer : _observers) {
    if (!observer->removed && observer->matches(name, object)) matching.push_back(observer);
  }
  return matching;
}

void NSNotificationCenter::deliver(const Ref<Observer>& observer, const Ref<NSNotification>& notification) {
  if (observer->onMainThread && !NSThread::isMainThread()) {
    queueForMainThread(observer, notification);
  } else {
    runBlock(*observer, *notification);
  }
}

void NSNotificationCenter::queueForMainThread(const Ref<Observer>& observer, const Ref<NSNotification>& notification) {
  // Under the lock, so that the block is queued before the removal that is to cancel it, or not at all.
  const std::lock_guard lock(_mutex);
  if (observer->removed) return;
  MainLoop::instance().add([this, observer, notification] { runBlock(*observer, *notification); }, observer.get());
}

void NSNotificationCenter::runBlock(Observer& observer, NSNotification& notification) noexcept {
  {
    const std::lock_guard lock(_mutex);
    if (observer.removed) return;
    ++observer.runsUnderWay;
  }
  const RunUnderWay run{&observer, innermostRun};
  innermostRun = &run;
  observer.block(notification);
  innermostRun = run.outer;
  endRun(observer);
}

/// The last run of a removed observer does what the removal had to leave.
void NSNotificationCenter::endRun(Observer& observer) {
  Ref<Observer> removed;
  {
    const std::lock_guard lock(_mutex);
    if (--observer.runsUnderWay > 0 || !observer.removed) return;
    const auto found = std::ranges::find(_observers, &observer, &Ref<Observer>::get);
    removed = std::move(*found);
    _observers.erase(found);
  }
  // From here on only this thread and the waiting removers know the observer.
  removed->block = nullptr;
  for (runtime::Event* remover : removed->removersWaiting) remover->signal();
}

#include <Foundation/NSNotification.h>

#include <Foundation/NSLog.h>
#include <runtime/MainLoop.h>

#include <algorithm>
#include <new>
#include <utility>

/// A caller of removeObserver that waits for the end of a run; lives on the caller's stack, for a removal takes no
/// memory.
struct NSNotificationCenter::WaitingRemover {
  runtime::Event ended;
  WaitingRemover* next = nullptr;
};

/// The token. What changes after the construction is guarded by the centre's mutex.
class NSNotificationCenter::Observer final : public NSObject {
 public:
  Observer(NSNotificationName notificationName, const NSObject* limitedTo, bool isForMainThread, Block usingBlock)
      : name(notificationName), object(limitedTo), onMainThread(isForMainThread), block(std::move(usingBlock)) {}

  const std::string name;
  const NSObject* const object;  ///< Compared only; may be gone.
  const bool onMainThread;

  std::uint64_t registration = 0;
  Block block;
  bool removed = false;
  int runsUnderWay = 0;
  int runsWaiting = 0;  ///< For the main thread.
  WaitingRemover* waitingRemovers = nullptr;
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
  observer->registration = ++_registrations;
  const auto token = _byToken.emplace(observer.get(), observer.get()).first;
  try {
    _observers[observer->name].emplace(std::pair(observer->object, observer->registration), observer);
  } catch (...) {
    _byToken.erase(token);
    throw;
  }
  return observer;
}

void NSNotificationCenter::removeObserver(NSObject* token) noexcept {
  WaitingRemover remover;
  bool mustWait = false;
  bool mustCancel = false;
  Ref<Observer> removed;  // goes after the unlock: what its block has captured may call back into here
  {
    const std::lock_guard lock(_mutex);
    const auto found = _byToken.find(token);
    if (found == _byToken.end()) return;
    Observer& observer = *found->second;
    observer.removed = true;
    mustCancel = observer.runsWaiting > 0;
    if (observer.runsUnderWay == 0) {
      removed = take(observer);
    } else if (!runtime::isWithin(token)) {
      remover.next = std::exchange(observer.waitingRemovers, &remover);
      mustWait = true;
    }
  }
  if (mustCancel) MainLoop::instance().cancel(token);
  if (mustWait) remover.ended.wait();
  if (removed) removed->block = nullptr;
}

void NSNotificationCenter::postNotificationName(NSNotificationName name, NSObject* object) noexcept {
  try {
    const std::vector<Ref<Observer>> observers = observersFor(name, object);
    if (observers.empty()) return;
    const auto notification = makeRef<NSNotification>(name, object);
    for (const Ref<Observer>& observer : observers) deliver(observer, notification);
  } catch (const std::bad_alloc&) {
    NSLog("No memory to post %.*s", static_cast<int>(name.size()), name.data());
  }
}

std::size_t NSNotificationCenter::observerCount() const {
  const std::lock_guard lock(_mutex);
  const auto count = std::ranges::count(_byToken, false, [](const auto& each) { return each.second->removed; });
  return static_cast<std::size_t>(count);
}

std::vector<Ref<NSNotificationCenter::Observer>> NSNotificationCenter::observersFor(NSNotificationName name,
                                                                                    const NSObject* object) const {
  std::vector<Ref<Observer>> matching;
  const std::lock_guard lock(_mutex);
  const auto named = _observers.find(name);
  if (named == _observers.end()) return matching;
  const auto addThoseLimitedTo = [&, &observers = named->second](const NSObject* limit) {
    for (auto each = observers.lower_bound({limit, 0}); each != observers.end() && each->first.first == limit; ++each) {
      if (!each->second->removed) matching.push_back(each->second);
    }
  };
  addThoseLimitedTo(nullptr);
  if (object) addThoseLimitedTo(object);
  std::ranges::sort(matching, {}, [](const Ref<Observer>& each) { return each->registration; });
  return matching;
}

/// Takes an observer out of the lists, with the lock held.
Ref<NSNotificationCenter::Observer> NSNotificationCenter::take(Observer& observer) {
  const auto named = _observers.find(observer.name);
  const auto entry = named->second.find({observer.object, observer.registration});
  Ref<Observer> taken = std::move(entry->second);
  named->second.erase(entry);
  if (named->second.empty()) _observers.erase(named);
  _byToken.erase(&observer);
  return taken;
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
  const auto run = [this, observer, notification] {
    {
      const std::lock_guard running(_mutex);
      --observer->runsWaiting;
    }
    runBlock(*observer, *notification);
  };
  MainLoop::instance().add(run, observer.get());
  ++observer->runsWaiting;
}

void NSNotificationCenter::runBlock(Observer& observer, NSNotification& notification) noexcept {
  {
    const std::lock_guard lock(_mutex);
    if (observer.removed) return;
    ++observer.runsUnderWay;
  }
  const runtime::Activity run{static_cast<const NSObject*>(&observer), runtime::innermostActivity()};
  runtime::innermostActivity() = &run;
  observer.block(notification);
  runtime::innermostActivity() = run.outer;
  endRun(observer);
}

/// The last run of a removed observer does what the removal had to leave.
void NSNotificationCenter::endRun(Observer& observer) {
  Ref<Observer> removed;
  {
    const std::lock_guard lock(_mutex);
    if (--observer.runsUnderWay > 0 || !observer.removed) return;
    removed = take(observer);
  }
  // From here on only this thread and the waiting removers know the observer.
  removed->block = nullptr;
  while (WaitingRemover* const remover = removed->waitingRemovers) {
    removed->waitingRemovers = remover->next;  // before the signal, with which the remover goes
    remover->ended.signal();
  }
}

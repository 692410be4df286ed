#include <dispatch/dispatch.h>

#include <dispatch/ItemRing.h>
#include <runtime/NSObject.h>
#include <runtime/Scheduler.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <utility>

namespace {

/// How long a caller of dispatch_sync for whom there is no memory to stand in line waits before it looks again.
constexpr runtime::Nanoseconds WithoutMemory = runtime::NanosecondsPerSecond / 1000;

/// A caller of dispatch_sync that waits for its turn; lives on the caller's stack.
struct WaitingCaller {
  const runtime::Activity* callerActivity = nullptr;
  runtime::Event finished;
};

struct Item {
  void* context = nullptr;
  dispatch_function_t work = nullptr;
  WaitingCaller* caller = nullptr;  ///< Null for an asynchronous item.
};

/// A synchronous item that runs on its queue's thread continues the activities of the caller that waits for it, so that
/// a call back onto one of the caller's queues is recognised there as well.
void runItem(dispatch_queue_t queue, const Item& item, const runtime::Activity* outer) noexcept {
  const runtime::Activity activity{queue, outer};
  const runtime::Activity* const before = std::exchange(runtime::innermostActivity(), &activity);
  item.work(item.context);
  runtime::innermostActivity() = before;
}

}  // namespace

/// One item runs at a time, on the lane or, for dispatch_sync on an idle queue, on the caller's thread. The
/// references from outside decide when the queue may go; while items wait or run, `dispose` leaves the
/// end to the last of them. So an item holds no reference of its own, and once the queue has been seen idle
/// no other thread is about to give one back.
struct OpaqueDispatchQueue final : NSObject, private runtime::LaneClient {
 public:
  explicit OpaqueDispatchQueue(std::string name) noexcept : label(std::move(name)) {}

  bool enqueue(const Item& item);
  void wake() noexcept { _lane->wake(); }
  void runSynchronously(void* context, dispatch_function_t work) noexcept;

  const std::string label;

 private:
  runtime::Nanoseconds nextItemTime() override;
  void runNextItem() override;
  void dispose() override;

  bool isIdle() const noexcept { return !_running && _items.isEmpty(); }
  void push(const Item& item);
  bool tryPush(const Item& item) noexcept;
  void setRunning(bool isRunning);
  void runInline(const Item& item);
  bool finishItem();
  void destroy();

  std::mutex _mutex;
  ItemRing<Item> _items;
  bool _running = false;  ///< An item is under way.
  /// Whether the lane has an item to run. Written under the lock, read without it: a wake finds its item a lock sooner.
  std::atomic<bool> _hasNext{false};
  bool _abandoned = false;  ///< The last reference is gone; whoever finishes the last item destroys the queue.
  std::unique_ptr<runtime::Lane> _lane;
};

/// With the lock held. The lane starts under the lock, so that it cannot run before it is known here.
void OpaqueDispatchQueue::push(const Item& item) {
  if (!_lane) _lane = runtime::Scheduler::current().makeLane(label, *this);
  _items.push(item);
  _hasNext.store(!_running, std::memory_order_relaxed);
}

/// With the lock held.
void OpaqueDispatchQueue::setRunning(bool isRunning) {
  _running = isRunning;
  _hasNext.store(!isRunning && !_items.isEmpty(), std::memory_order_relaxed);
}

bool OpaqueDispatchQueue::tryPush(const Item& item) noexcept try {
  push(item);
  return true;
} catch (const std::exception&) {
  return false;
}

/// True when the lane is to be woken. Otherwise it looks for the next item by itself, or whoever runs an item inline,
/// or has added one before, wakes it.
bool OpaqueDispatchQueue::enqueue(const Item& item) {
  const std::lock_guard lock(_mutex);
  const bool wasIdle = isIdle();
  push(item);
  return wasIdle;
}

void OpaqueDispatchQueue::runSynchronously(void* context, dispatch_function_t work) noexcept {
  WaitingCaller caller{runtime::innermostActivity(), {}};
  for (bool isInLine = false; !isInLine;) {
    {
      std::unique_lock lock(_mutex);
      if (isIdle()) {
        setRunning(true);
        lock.unlock();
        runInline({context, work, nullptr});
        return;
      }
      isInLine = tryPush({context, work, &caller});
    }
    if (!isInLine) runtime::Scheduler::current().sleepUntil(runtime::Scheduler::current().now() + WithoutMemory);
  }
  caller.finished.wait();
}

void OpaqueDispatchQueue::runInline(const Item& item) {
  const auto keptWhileWaking = Ref<OpaqueDispatchQueue>::retain(this);
  runItem(this, item, runtime::innermostActivity());
  bool itemsWait = false;
  {
    const std::lock_guard lock(_mutex);
    setRunning(false);
    itemsWait = !_items.isEmpty();
  }
  if (itemsWait) _lane->wake();
}

runtime::Nanoseconds OpaqueDispatchQueue::nextItemTime() {
  return _hasNext.load(std::memory_order_relaxed) ? 0 : runtime::Never;
}

void OpaqueDispatchQueue::runNextItem() {
  Item item;
  {
    const std::lock_guard lock(_mutex);
    if (_running || _items.isEmpty()) return;
    item = _items.pop();
    setRunning(true);
  }
  runItem(this, item, item.caller ? item.caller->callerActivity : nullptr);
  if (finishItem()) destroy();
  // Last, because the caller may release the queue as soon as it returns.
  if (item.caller) item.caller->finished.signal();
}

/// True when the finished item was the last one of a queue to which nobody refers any more.
bool OpaqueDispatchQueue::finishItem() {
  const std::lock_guard lock(_mutex);
  setRunning(false);
  return _abandoned && _items.isEmpty();
}

void OpaqueDispatchQueue::dispose() {
  {
    const std::lock_guard lock(_mutex);
    if (!isIdle()) {
      _abandoned = true;
      return;
    }
  }
  destroy();
}

void OpaqueDispatchQueue::destroy() {
  // Before the destructors: the lane's thread may be asking for the next item at this moment.
  _lane.reset();
  delete this;
}

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t) {
  try {
    return makeRef<OpaqueDispatchQueue>(label ? label : "").leak();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void dispatch_release(dispatch_queue_t queue) {
  if (queue) queue->release();
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  if (!queue || !work) return;
  // The item may give back the very reference that the caller relies on, while the lane is still being woken.
  const auto keptWhileWaking = Ref<OpaqueDispatchQueue>::retain(queue);
  if (queue->enqueue({context, work, nullptr})) queue->wake();
}

bool dispatch_enqueue_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  return queue && work && queue->enqueue({context, work, nullptr});
}

void dispatch_wake(dispatch_queue_t queue) {
  if (queue) queue->wake();
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  if (!queue || !work) return;
  if (dispatch_queue_is_current(queue)) {
    std::fprintf(stderr, "dispatch_sync onto the current queue \"%s\" would never return\n", queue->label.c_str());
    std::abort();
  }
  queue->runSynchronously(context, work);
}

bool dispatch_queue_is_current(dispatch_queue_t queue) {
  return runtime::isWithin(queue);
}

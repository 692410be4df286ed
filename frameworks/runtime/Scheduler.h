#pragma once

// The seam through which all waiting and all concurrency of the frameworks and of the simulated hardware
// pass: what time it is, waiting for a time or an event, and who runs the next item of a lane. In
// production the answers are the monotonic clock and a thread per lane. A test can install a scheduler
// of its own that runs everything on one thread in virtual time.

#include <condition_variable>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string_view>

namespace runtime {

/// A moment on the scheduler's monotonic clock, or a span of it.
using Nanoseconds = std::int64_t;
inline constexpr Nanoseconds Never = std::numeric_limits<Nanoseconds>::max();
inline constexpr Nanoseconds NanosecondsPerSecond = 1'000'000'000;

/// What a lane carries out: a dispatch queue's items, a device's clock. Called by its lane alone, one call at a time.
class LaneClient {
 public:
  /// When the next item is due: any past time for at once, Never while there is nothing to do. Asked at the
  /// start of the lane, after every item and after every wake.
  virtual Nanoseconds nextItemTime() = 0;

  /// Runs the next item. It may destroy the lane it runs on.
  virtual void runNextItem() = 0;

 protected:
  ~LaneClient() = default;
};

/// A line of execution that runs its client's items one after the other.
class Lane {
 public:
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  /// Ends the lane: afterwards the client is not called any more. Waits for an item in progress, except
  /// when called from that item.
  virtual ~Lane();

  /// Tells the lane that the client's next item time may have changed. Any thread.
  virtual void wake() = 0;

 protected:
  Lane() noexcept;
};

/// Something that happens once or repeatedly and that one thread waits for.
class Event {
 public:
  /// Lets the current wait, or the next one, return.
  void signal();

  /// Waits for a signal and takes it back; false when `deadline` passed first.
  bool wait(Nanoseconds deadline = Never);

  /// For schedulers: takes a pending signal without waiting.
  bool takeSignal();

 private:
  friend class ThreadScheduler;

  std::mutex _mutex;
  std::condition_variable _condition;
  bool _signalled = false;
};

/// Something that a line of execution is in the middle of: a queue's item, a notification's block. Lives on its stack.
struct Activity {
  const void* subject;    ///< the queue, the observer; compared only
  const Activity* outer;  ///< what it runs within; null for nothing
};

/// The innermost activity of the calling line of execution; null outside all. A scheduler that runs several lines on
/// one thread puts each one's own in place when it goes from one to another.
const Activity*& innermostActivity() noexcept;

/// True from within an activity on `subject`.
bool isWithin(const void* subject) noexcept;

class Scheduler {
 public:
  virtual ~Scheduler() = default;

  /// The scheduler in force: threads and the monotonic clock, unless a test installed another.
  static Scheduler& current() noexcept;

  /// Installs a scheduler, or with null the threads again. Only while no lane exists.
  static void install(Scheduler* scheduler) noexcept;

  virtual Nanoseconds now() = 0;
  /// The time up to some milliseconds ago, for a fraction of what `now` costs: for who counts in seconds.
  virtual Nanoseconds roughNow() { return now(); }
  virtual void sleepUntil(Nanoseconds time) = 0;
  /// Starts a lane for `client`, which must outlive it. The client may be asked before this returns.
  virtual std::unique_ptr<Lane> makeLane(std::string_view name, LaneClient& client) = 0;
  virtual bool wait(Event& event, Nanoseconds deadline) = 0;
  /// True on the thread that entered main.
  virtual bool isMainThread() = 0;
};

/// Number of lanes that exist: for tests.
std::int64_t liveLaneCount() noexcept;

}  // namespace runtime

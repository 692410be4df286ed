#pragma once

// PipeWire's event loop, run by a lane of the scheduler: each of the lane's items is one turn of the loop. So the
// provider starts no thread itself, and whatever lives on the loop is called on one lane.

#include <pipewire/pipewire.h>
#include <runtime/Scheduler.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace hardware::pipewire {

/// What lives on the loop is made before `begin` or on the lane, and destroyed on the lane or after `end`.
class EventLoop final : private runtime::LaneClient {
 public:
  /// Throws std::bad_alloc when there is no loop to be had.
  EventLoop();
  ~EventLoop();

  pw_loop* get() const { return _loop; }

  /// Starts the lane. Each turn holds the owner, which may so be let go of in the middle of one.
  void begin(std::string_view name, std::weak_ptr<const void> owner);

  /// Ends the lane: afterwards nothing is called on it. Waits for the turn in progress, except when called from it. For
  /// one thread at a time.
  void end();

  /// True on the thread that is running a turn. Any thread.
  bool isCurrent() const { return _turningThread.load() == std::this_thread::get_id(); }

  /// Calls `action` on the lane soon. Any thread.
  void call(std::function<void()> action);

 private:
  runtime::Nanoseconds nextItemTime() override { return _hasEnded.load() ? runtime::Never : 0; }
  void runNextItem() override;
  void runCalls();

  pw_loop* _loop;
  spa_source* _wake;
  std::weak_ptr<const void> _owner;
  std::atomic<bool> _hasEnded{false};
  std::atomic<std::thread::id> _turningThread{};

  std::mutex _callsLock;
  std::vector<std::function<void()>> _calls;

  std::unique_ptr<runtime::Lane> _lane;
};

/// Lets a loop's lane call an action. Lives on the loop.
class Signal {
 public:
  Signal(EventLoop& loop, std::function<void()> action);
  ~Signal();

  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  /// The action is called soon, once for several of these. Any thread; neither waits nor needs memory.
  void raise();

 private:
  EventLoop& _loop;
  std::function<void()> _action;
  spa_source* _source;
};

/// Calls back on a loop's lane, once, after a while. Lives on the loop.
class Timer {
 public:
  Timer(EventLoop& loop, std::function<void()> action);
  ~Timer();

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  /// Counts from now, whatever it was set to before.
  void set(runtime::Nanoseconds after);
  void stop();

 private:
  EventLoop& _loop;
  std::function<void()> _action;
  spa_source* _source;
};

}  // namespace hardware::pipewire

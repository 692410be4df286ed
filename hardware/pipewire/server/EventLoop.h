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

/// What lives on the loop is made before `begin` or on the lane, and destroyed on the lane or after `end`. Connections
/// and streams are opened and closed on the lane: the library's data thread takes a loop that no thread is in for one
/// that it may run itself.
class EventLoop final : private runtime::LaneClient {
 public:
  /// Throws std::bad_alloc, or std::system_error where the process has too many files open.
  EventLoop();
  ~EventLoop();

  pw_loop* get() const { return _loop; }

  /// Starts the lane. Each turn holds the owner, which may so be let go of in the middle of one. The lane's last turn
  /// calls `close`. `recover` is called after a turn in which something could not be done for want of memory.
  void begin(std::string_view name, std::weak_ptr<const void> owner, std::function<void()> close,
             std::function<void()> recover);

  /// Ends the lane: afterwards nothing is called on it. Waits for its last turn, except when called from a turn: then
  /// that one is the last. For one thread at a time.
  void end();

  /// True within a turn. Any thread.
  bool isCurrent() const { return _thread.load() == std::this_thread::get_id(); }

  /// Does what the library has called back for. What that throws ends here: the library is not made for it.
  template <typename Action>
  void guard(Action&& action) noexcept {
    try {
      action();
    } catch (...) {
      _hasFailed = true;
    }
  }

  /// Calls `action` on the lane soon. Any thread.
  void call(std::function<void()> action);

 private:
  runtime::Nanoseconds nextItemTime() override { return _isClosed ? runtime::Never : 0; }
  void runNextItem() override;
  void close();
  void runCalls();

  pw_loop* _loop;
  spa_source* _wake;
  std::weak_ptr<const void> _owner;
  std::function<void()> _close, _recover;
  std::atomic<bool> _ends{false};
  std::atomic<std::thread::id> _thread{};  ///< the lane's

  std::mutex _callsLock;
  std::vector<std::function<void()>> _calls;

  // The lane's own.
  bool _isEntered = false;
  bool _isClosed = false;
  bool _hasFailed = false;

  runtime::Event _closed;
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

#pragma once

// The blocks that wait for the main thread: the notification centre adds them, the run loop runs them. Not for users
// of the frameworks.

#include <runtime/Scheduler.h>

#include <deque>
#include <functional>
#include <mutex>

class MainLoop {
 public:
  enum class RunResult { TimedOut, Stopped, RanBlock };

  static MainLoop& instance();

  /// Adds a block at the end; an empty one is ignored. Any thread. `owner` (an identity, not read) groups blocks for
  /// `cancel`.
  void add(std::function<void()> block, const void* owner = nullptr);

  /// Destroys the waiting blocks of an owner. One that has begun to run is not affected. Any thread. Needs no memory.
  void cancel(const void* owner) noexcept;

  /// Runs blocks as they come: those that wait at the call in any case, later ones until `seconds` have
  /// passed; only the first one when `returnAfterBlock` is set. Main thread only.
  RunResult run(double seconds, bool returnAfterBlock);

  /// Ends the current or the next `run`. Any thread.
  void stop();

  /// How many blocks wait. Any thread.
  std::size_t waitingCount() const;

 private:
  struct Entry {
    std::function<void()> block;
    const void* owner;
  };

  MainLoop() = default;

  bool runNext();
  bool takeStop();

  mutable std::mutex _mutex;
  std::deque<Entry> _entries;
  bool _stopRequested = false;
  runtime::Event _changed;  ///< Signalled after every change that a waiting run should look at.
};

#pragma once

// The blocks that wait for the main thread: the notification centre adds them, the run loop runs them, or a lane in its
// place. Not for users of the frameworks.

#include <runtime/Scheduler.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class MainLoop : private runtime::LaneClient {
 public:
  enum class RunResult { TimedOut, Stopped, RanBlock, NotHere };

  static MainLoop& instance();

  /// Adds a block at the end; an empty one is ignored. Any thread. `owner` (an identity, not read) groups blocks for
  /// `cancel`.
  void add(std::function<void()> block, const void* owner = nullptr);

  /// Destroys the waiting blocks of an owner. One that has begun to run is not affected. Any thread. Needs no memory.
  void cancel(const void* owner) noexcept;

  /// Runs blocks as they come: those that wait at the call in any case, later ones until `seconds` have
  /// passed; only the first one when `returnAfterBlock` is set. On another thread than the main one, and while a thread
  /// of the loop's own runs the blocks, none and NotHere.
  RunResult run(double seconds, bool returnAfterBlock);

  /// Ends the current or the next `run`. Any thread.
  void stop();

  /// How many blocks wait. Any thread.
  std::size_t waitingCount() const;

  /// From the first `startThread` to the `endThread` that matches it, a lane runs the blocks. False, and nothing
  /// started, during a `run` and in a block. Throws when memory or threads run out, and nothing has started.
  bool startThread();

  /// The last one waits for the block in progress; what waits then waits for `run`. Ignored in a block.
  void endThread();

  /// Whether the caller is where the blocks run: on the main thread, or in a block of the loop's own thread.
  static bool isCurrent() noexcept;

 private:
  struct Entry {
    std::function<void()> block;
    const void* owner;
  };

  MainLoop() = default;

  RunResult runBlocks(double seconds, bool returnAfterBlock);
  bool runNext();
  bool takeStop();
  runtime::Nanoseconds nextItemTime() override;
  void runNextItem() override;

  mutable std::mutex _mutex;
  std::deque<Entry> _entries;
  bool _stopRequested = false;
  runtime::Event _changed;  ///< Signalled after every change that a waiting run should look at.

  int _runsUnderWay = 0;
  std::unique_ptr<runtime::Lane> _lane;

  std::mutex _threadLock;  ///< Starting and ending the thread. Taken before `_mutex`, never by a block.
  int _threadUsers = 0;
  /// From before the lane's first block to after its last. Known without an instance, which takes memory to make.
  static inline constinit std::atomic<bool> _hasThread{false};
};

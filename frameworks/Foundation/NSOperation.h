#pragma once

// The main operation queue and the loop that runs it.

#include <functional>

/// Only the main queue exists here. Its blocks run on the process's main thread (the one that entered
/// `main`) and nowhere else, in the order in which they were added, while that thread runs its loop.
class NSOperationQueue {
 public:
  static NSOperationQueue& mainQueue();

  NSOperationQueue(const NSOperationQueue&) = delete;
  NSOperationQueue& operator=(const NSOperationQueue&) = delete;

  // addOperationWithBlock:
  /// Any thread. Always queues, from the main thread too. An empty block is ignored; a block must not throw.
  void addOperationWithBlock(std::function<void()> block);

 private:
  NSOperationQueue() = default;
};

class NSThread {
 public:
  /// True on the thread that entered `main`.
  static bool isMainThread() noexcept;
};

/// The main thread's loop. A host calls it while it waits; a test calls it to let notifications through.
class NSRunLoop {
 public:
  static NSRunLoop& mainRunLoop();

  /// Runs blocks as they come until `seconds` have passed, or until `stop`. Main thread only; on any
  /// other it returns false at once. Returns true when the time was used up, false when stopped.
  bool runForSeconds(double seconds);

  /// Runs blocks, those that they add included, until none is waiting. Main thread only: elsewhere nothing runs.
  void runUntilIdle();

  /// Runs at most one block, waiting for it up to `seconds`; true when one ran. Main thread only.
  bool runOneBlock(double seconds);

  /// Ends the current or the next timed run. Any thread.
  void stop();

  NSRunLoop(const NSRunLoop&) = delete;
  NSRunLoop& operator=(const NSRunLoop&) = delete;

 private:
  NSRunLoop() = default;
};

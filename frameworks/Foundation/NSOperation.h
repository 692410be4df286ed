#pragma once

// The main operation queue, and which thread runs it.

/// Says of a notification's block that it is to run on the main thread. Only the main queue exists here; what waits
/// for it runs while the main thread runs its loop, or a thread does in its place (CFRunLoop.h).
class NSOperationQueue {
 public:
  static NSOperationQueue& mainQueue();

  NSOperationQueue(const NSOperationQueue&) = delete;
  NSOperationQueue& operator=(const NSOperationQueue&) = delete;

 private:
  NSOperationQueue() = default;
};

class NSThread {
 public:
  /// True on the thread that entered `main`, or on the one that runs the main queue's blocks in its place.
  static bool isMainThread() noexcept;
};

#include <Foundation/NSOperation.h>

#include <runtime/MainLoop.h>

NSOperationQueue& NSOperationQueue::mainQueue() {
  static NSOperationQueue queue;
  return queue;
}

bool NSThread::isMainThread() noexcept {
  return MainLoop::isCurrent();
}

#include <Foundation/NSOperation.h>

#include <runtime/Scheduler.h>

NSOperationQueue& NSOperationQueue::mainQueue() {
  static NSOperationQueue queue;
  return queue;
}

bool NSThread::isMainThread() noexcept {
  return runtime::Scheduler::current().isMainThread();
}

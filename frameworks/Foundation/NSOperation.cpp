#include <Foundation/NSOperation.h>

#include <CoreFoundation/CFRunLoop.h>
#include <runtime/MainLoop.h>
#include <runtime/NSObject.h>
#include <runtime/Scheduler.h>

#include <utility>

struct OpaqueCFRunLoop final : NSObject {
  OpaqueCFRunLoop() noexcept { makeImmortal(); }
};

NSOperationQueue& NSOperationQueue::mainQueue() {
  static NSOperationQueue queue;
  return queue;
}

void NSOperationQueue::addOperationWithBlock(std::function<void()> block) {
  MainLoop::instance().add(std::move(block));
}

bool NSThread::isMainThread() noexcept {
  return runtime::Scheduler::current().isMainThread();
}

NSRunLoop& NSRunLoop::mainRunLoop() {
  static NSRunLoop loop;
  return loop;
}

bool NSRunLoop::runForSeconds(double seconds) {
  return NSThread::isMainThread() && MainLoop::instance().run(seconds, false) != MainLoop::RunResult::Stopped;
}

void NSRunLoop::runUntilIdle() {
  if (NSThread::isMainThread()) MainLoop::instance().runUntilIdle();
}

bool NSRunLoop::runOneBlock(double seconds) {
  return NSThread::isMainThread() && MainLoop::instance().run(seconds, true) == MainLoop::RunResult::RanBlock;
}

void NSRunLoop::stop() {
  MainLoop::instance().stop();
}

CFRunLoopRunResult CFRunLoopRunInMode(CFStringRef, double seconds, Boolean returnAfterSourceHandled) {
  if (!NSThread::isMainThread()) return kCFRunLoopRunFinished;
  switch (MainLoop::instance().run(seconds, returnAfterSourceHandled != 0)) {
    case MainLoop::RunResult::Stopped:
      return kCFRunLoopRunStopped;
    case MainLoop::RunResult::RanBlock:
      return kCFRunLoopRunHandledSource;
    case MainLoop::RunResult::TimedOut:
      break;
  }
  return kCFRunLoopRunTimedOut;
}

CFRunLoopRef CFRunLoopGetMain() {
  static OpaqueCFRunLoop loop;
  return &loop;
}

void CFRunLoopStop(CFRunLoopRef loop) {
  if (loop) MainLoop::instance().stop();
}

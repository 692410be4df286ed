#include <CoreFoundation/CFRunLoop.h>

#include <runtime/MainLoop.h>
#include <runtime/NSObject.h>
#include <runtime/Scheduler.h>

#include <exception>

struct OpaqueCFRunLoop final : NSObject {
  OpaqueCFRunLoop() noexcept { makeImmortal(); }
};

CFRunLoopRunResult CFRunLoopRunInMode(CFStringRef, double seconds, Boolean returnAfterSourceHandled) {
  switch (MainLoop::instance().run(seconds, returnAfterSourceHandled != 0)) {
    case MainLoop::RunResult::Stopped:
      return kCFRunLoopRunStopped;
    case MainLoop::RunResult::RanBlock:
      return kCFRunLoopRunHandledSource;
    case MainLoop::RunResult::TimedOut:
      return kCFRunLoopRunTimedOut;
    case MainLoop::RunResult::NotHere:
      break;
  }
  return kCFRunLoopRunFinished;
}

CFRunLoopRef CFRunLoopGetMain() {
  static OpaqueCFRunLoop loop;
  return &loop;
}

void CFRunLoopStop(CFRunLoopRef loop) {
  if (loop) MainLoop::instance().stop();
}

Boolean CFRunLoopStartThread(CFRunLoopRef loop) try {
  return loop && MainLoop::instance().startThread();
} catch (const std::exception&) {
  return false;
}

void CFRunLoopEndThread(CFRunLoopRef loop) {
  if (loop) MainLoop::instance().endThread();
}

Boolean CFRunLoopPerformAndWait(CFRunLoopRef loop, void (*function)(void* context), void* context) try {
  if (!loop || !function) return false;
  if (MainLoop::isCurrent()) {
    function(context);
    return true;
  }
  runtime::Event hasRun;
  MainLoop::instance().add([&] {
    function(context);
    hasRun.signal();
  });
  hasRun.wait();
  return true;
} catch (const std::exception&) {
  return false;
}

#include <CoreFoundation/CFRunLoop.h>

#include <runtime/MainLoop.h>
#include <runtime/NSObject.h>
#include <runtime/Scheduler.h>

struct OpaqueCFRunLoop final : NSObject {
  OpaqueCFRunLoop() noexcept { makeImmortal(); }
};

CFRunLoopRunResult CFRunLoopRunInMode(CFStringRef, double seconds, Boolean returnAfterSourceHandled) {
  if (!runtime::Scheduler::current().isMainThread()) return kCFRunLoopRunFinished;
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

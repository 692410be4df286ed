#pragma once

// The main thread's run loop, for hosts. What is posted to the main queue runs here and nowhere else.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef struct OpaqueCFRunLoop* CFRunLoopRef;

typedef SInt32 CFRunLoopRunResult;
enum {
  kCFRunLoopRunFinished = 1,       ///< Called on another thread than the main one; nothing ran.
  kCFRunLoopRunStopped = 2,        ///< CFRunLoopStop was called.
  kCFRunLoopRunTimedOut = 3,       ///< The time is over.
  kCFRunLoopRunHandledSource = 4,  ///< One block ran and `returnAfterSourceHandled` was set.
};

/// Runs the main queue's blocks as they come, for `seconds`; with 0, only those already waiting.
/// Only the default mode exists; `mode` is not read.
CFRunLoopRunResult CFRunLoopRunInMode(CFStringRef mode, double seconds, Boolean returnAfterSourceHandled);

/// The main thread's loop, the only one.
CFRunLoopRef CFRunLoopGetMain(void);

/// Ends the current or the next run of the loop. Any thread, but not from a signal handler.
void CFRunLoopStop(CFRunLoopRef loop);

#define kCFRunLoopDefaultMode ((CFStringRef)0)

CF_EXTERN_C_END

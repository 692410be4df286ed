#pragma once

// The main thread's run loop, for hosts. What is posted to the main queue runs here and nowhere else. A host whose main
// thread has another loop to run lets a thread of the frameworks do it:
//
//   CFRunLoopStartThread(CFRunLoopGetMain());  // before the module is initialised
//   ...
//   CFRunLoopEndThread(CFRunLoopGetMain());    // after it has been uninitialised

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef struct OpaqueCFRunLoop* CFRunLoopRef;

typedef SInt32 CFRunLoopRunResult;
enum {
  kCFRunLoopRunFinished = 1,       ///< Called on another thread than the main one, or in vain, see below; nothing ran.
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

/// Starts a thread that runs the main queue's blocks as they come, in the main thread's place: "main thread" means that
/// one then, wherever callbacks and locks are described. CFRunLoopRunInMode returns kCFRunLoopRunFinished at once
/// meanwhile, also on the thread that entered `main`. Calls count; each that returned true wants its
/// CFRunLoopEndThread. False, and nothing started, while the loop runs, in one of its blocks (a device-state callback,
/// say), for a null loop, and where memory or threads run out. Any thread, at a time when no other calls the frameworks
/// or the module.
Boolean CFRunLoopStartThread(CFRunLoopRef loop);

/// The last of these calls ends the thread, once the block in progress has run; what waits then stays for the next run
/// of the loop, or the next thread. Any thread, under the same condition; without effect in one of the loop's blocks.
void CFRunLoopEndThread(CFRunLoopRef loop);

/// Runs `function` among the main queue's blocks, after those that wait, and returns when it has run; at once from
/// a block, and on the main thread where no other is in its place. Nothing comes or goes in the meantime, so that what
/// takes several calls of the module belongs together, and calls from several threads come one at a time. Waits for as
/// long as nobody runs the blocks. Not from a data or log callback. False, and nothing run, out of memory.
Boolean CFRunLoopPerformAndWait(CFRunLoopRef loop, void (*function)(void* context), void* context);

#define kCFRunLoopDefaultMode ((CFStringRef)0)

CF_EXTERN_C_END

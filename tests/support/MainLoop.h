#pragma once

// The main thread's loop, in a word each.

#include <CoreFoundation/CFRunLoop.h>

inline void runMainLoop(double seconds) {
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, false);
}

/// Runs the block that waits first; false when none does.
inline bool runOneBlock() {
  return CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true) == kCFRunLoopRunHandledSource;
}

/// Runs blocks until none waits.
inline void runMainLoopUntilIdle() {
  while (runOneBlock()) {
  }
}

#pragma once

// The process's clock.

class NSProcessInfo {
 public:
  static const NSProcessInfo& processInfo();

  /// Seconds on a clock that never jumps: not changed by setting the time of day. Any thread.
  double systemUptime() const;
};

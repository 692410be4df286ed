#pragma once

// Signals as flags that the main loop looks at: Ctrl-C, SIGTERM and a terminal that goes away, so that files are
// finished before the process ends, and SIGUSR1, which asks how things stand.

namespace brvhost {

/// While one exists, which is one at a time, the first SIGINT or SIGTERM sets `requested`, and a second one ends the
/// process as usual. So does SIGHUP, but that it may come again, and that a process which ignores it goes on doing so.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  static bool requested() noexcept;

  /// Whether SIGUSR1 has come since the last call.
  static bool takeInquiry() noexcept;
};

}  // namespace brvhost

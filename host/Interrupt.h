#pragma once

// Signals as flags that the main loop looks at: Ctrl-C and SIGTERM, so that files are finished before the process ends,
// and SIGUSR1, which asks how things stand.

namespace brvhost {

/// While one exists, the first SIGINT or SIGTERM sets `requested`; a second one ends the process as usual.
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

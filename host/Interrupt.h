#pragma once

// Ctrl-C and SIGTERM: a flag that the main loop looks at, so that files are finished before the process ends.

namespace brvhost {

/// While one exists, the first SIGINT or SIGTERM sets `requested`; a second one ends the process as usual.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  static bool requested() noexcept;
};

}  // namespace brvhost

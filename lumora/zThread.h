#pragma once

// Waiting, through one replaceable function: a host that runs its pipeline in virtual time lets modules wait in it too.

class zThread {
 public:
  using SleepFunction = void (*)(unsigned int microseconds);

  /// Blocks the calling thread for at least `microseconds`; a signal handled meanwhile does not end the wait.
  static void MicroSleep(unsigned int microseconds);

  /// Replaces what `MicroSleep` does, for the whole process and from any thread. The function is called on the threads
  /// that wait, several at a time. Null brings the real wait back.
  static void SetSleepFunction(SleepFunction function) noexcept;
};

#pragma once

// Holds a thread where a test wants it.

#include <runtime/Scheduler.h>

#include <atomic>

class Gate {
 public:
  /// Blocks the first caller until `open`; later ones go through.
  void pass() {
    if (_isPassed.exchange(true)) return;
    _entered.signal();
    _opened.wait();
  }
  void waitUntilEntered() { _entered.wait(); }
  void open() { _opened.signal(); }

 private:
  std::atomic<bool> _isPassed{false};
  runtime::Event _entered, _opened;
};

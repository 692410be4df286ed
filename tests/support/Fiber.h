#pragma once

// A stack of its own for a line of execution, on which it can be left and taken up again. All fibers of a process are
// used by one thread.

#include <setjmp.h>
#include <ucontext.h>

#include <cstddef>

namespace test {

class Fiber {
 public:
  /// Stands for the stack that the thread is on.
  Fiber();
  /// Runs `body`, which does not return, once it is first switched to.
  explicit Fiber(void (*body)());
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  /// Leaves this fiber, on which the caller is, for `next`; returns when it is switched to again.
  void switchTo(Fiber& next);

 private:
  static void enter();
  void arrive();

  void (*_body)() = nullptr;
  void* _memory = nullptr;
  ucontext_t _context{};
  [[maybe_unused]] jmp_buf _resumption;
  [[maybe_unused]] bool _hasStarted = true;

  // What the sanitizers know of it.
  const void* _stack = nullptr;
  std::size_t _stackSize = 0;
  [[maybe_unused]] void* _fakeStack = nullptr;
  [[maybe_unused]] void* _shadow = nullptr;
};

}  // namespace test

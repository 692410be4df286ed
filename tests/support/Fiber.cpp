// The C library's fortification takes a jump to another stack for a mistake.
#undef _FORTIFY_SOURCE

#include "support/Fiber.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

#ifndef __has_feature
#define __has_feature(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#define FIBERS_UNDER_ASAN 1
#include <sanitizer/common_interface_defs.h>
#elif defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
#define FIBERS_UNDER_TSAN 1
#include <sanitizer/tsan_interface.h>
#endif

namespace test {

namespace {

constexpr std::size_t StackSize = 256 * 1024;

Fiber* arriving = nullptr;
Fiber* leaving = nullptr;

}  // namespace

Fiber::Fiber() {
#ifdef FIBERS_UNDER_TSAN
  _shadow = __tsan_get_current_fiber();
#endif
}

Fiber::Fiber(void (*body)()) : _body(body), _hasStarted(false), _stackSize(StackSize) {
  // Below the stack lies a page that cannot be touched: one that is too small is noticed.
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  _memory = mmap(nullptr, page + StackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (_memory == MAP_FAILED) throw std::bad_alloc();
  mprotect(_memory, page, PROT_NONE);
  char* const stack = static_cast<char*>(_memory) + page;
  _stack = stack;
  getcontext(&_context);
  _context.uc_stack.ss_sp = stack;
  _context.uc_stack.ss_size = StackSize;
  makecontext(&_context, &Fiber::enter, 0);
#ifdef FIBERS_UNDER_TSAN
  _shadow = __tsan_create_fiber(0);
#endif
}

Fiber::~Fiber() {
  if (!_memory) return;
#ifdef FIBERS_UNDER_TSAN
  __tsan_destroy_fiber(_shadow);
#endif
  munmap(_memory, _stackSize + static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
}

void Fiber::switchTo(Fiber& next) {
  leaving = this;
  arriving = &next;
#if defined(FIBERS_UNDER_ASAN)
  __sanitizer_start_switch_fiber(&_fakeStack, next._stack, next._stackSize);
  swapcontext(&_context, &next._context);
#elif defined(FIBERS_UNDER_TSAN)
  __tsan_switch_to_fiber(next._shadow, 0);
  swapcontext(&_context, &next._context);
#else
  // Of the two ways, swapcontext calls the system each time and takes fifty times as long.
  if (_setjmp(_resumption) == 0) {
    if (next._hasStarted) _longjmp(next._resumption, 1);
    next._hasStarted = true;
    setcontext(&next._context);
  }
#endif
  arriving->arrive();
}

void Fiber::enter() {
  arriving->arrive();
  arriving->_body();
}

void Fiber::arrive() {
#ifdef FIBERS_UNDER_ASAN
  __sanitizer_finish_switch_fiber(_fakeStack, &leaving->_stack, &leaving->_stackSize);
#endif
}

}  // namespace test

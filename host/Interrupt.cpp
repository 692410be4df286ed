#include "Interrupt.h"

#include <atomic>
#include <csignal>

namespace brvhost {

namespace {

/// Atomic, not merely volatile: the signal may be delivered on any thread.
std::atomic<bool> signalled{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may not wait for a lock");

extern "C" void noteSignal(int) {
  signalled = true;
}

void setHandler(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  // One-shot: should finishing the files ever hang, a second Ctrl-C still works.
  if (handler != SIG_DFL) action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

Interrupt::Interrupt() {
  signalled = false;
  setHandler(noteSignal);
}

Interrupt::~Interrupt() {
  setHandler(SIG_DFL);
}

bool Interrupt::requested() noexcept {
  return signalled;
}

}  // namespace brvhost

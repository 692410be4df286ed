#include "Interrupt.h"

#include <atomic>
#include <csignal>

namespace brvhost {

namespace {

/// Atomic, not merely volatile: the signal may be delivered on any thread.
std::atomic<bool> signalled{false};
std::atomic<bool> asked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may not wait for a lock");

extern "C" void noteSignal(int) {
  signalled = true;
}

extern "C" void noteInquiry(int) {
  asked = true;
}

void setHandler(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  // One-shot: should finishing the files ever hang, a second Ctrl-C still works.
  if (handler != SIG_DFL) action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  action.sa_handler = handler == SIG_DFL ? SIG_DFL : noteInquiry;
  action.sa_flags = SA_RESTART;  // an inquiry disturbs no writing
  sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace

Interrupt::Interrupt() {
  signalled = false;
  asked = false;
  setHandler(noteSignal);
}

Interrupt::~Interrupt() {
  setHandler(SIG_DFL);
}

bool Interrupt::requested() noexcept {
  return signalled;
}

bool Interrupt::takeInquiry() noexcept {
  return asked.exchange(false);
}

}  // namespace brvhost

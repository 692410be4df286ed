#include "common/Interrupt.h"

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

struct Handling {
  int signal;
  void (*handler)(int);
  int flags;
  struct sigaction former;
};

Handling handlings[] = {
    // One-shot: should finishing the files ever hang, a second Ctrl-C still works.
    {SIGINT, noteSignal, static_cast<int>(SA_RESETHAND), {}},
    {SIGTERM, noteSignal, static_cast<int>(SA_RESETHAND), {}},
    // A terminal that goes sends it twice: the shell passes it on, and the system tells the foreground.
    {SIGHUP, noteSignal, 0, {}},
    {SIGUSR1, noteInquiry, SA_RESTART, {}},  // an inquiry disturbs no writing
};

}  // namespace

Interrupt::Interrupt() {
  signalled = false;
  asked = false;
  for (Handling& handling : handlings) {
    struct sigaction action = {};
    action.sa_handler = handling.handler;
    action.sa_flags = handling.flags;
    sigemptyset(&action.sa_mask);
    sigaction(handling.signal, nullptr, &handling.former);
    const bool survivesItsTerminal = handling.signal == SIGHUP && handling.former.sa_handler == SIG_IGN;  // nohup
    if (!survivesItsTerminal) sigaction(handling.signal, &action, nullptr);
  }
}

Interrupt::~Interrupt() {
  for (const Handling& handling : handlings) sigaction(handling.signal, &handling.former, nullptr);
}

bool Interrupt::requested() noexcept {
  return signalled;
}

bool Interrupt::takeInquiry() noexcept {
  return asked.exchange(false);
}

}  // namespace brvhost

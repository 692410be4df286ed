#pragma once

// Private to the frameworks and the hardware.

#include <pthread.h>
#include <signal.h>

namespace runtime {

/// Keeps asynchronous signals away from the threads that are started in its scope: they are the host's.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &_before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t _before;
};

}  // namespace runtime

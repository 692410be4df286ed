// What the system says of threads, for a program in which a SimulationScheduler may be in force: a line of execution is
// then a thread of its own, and one that finds a mutex locked lets the others run. The program's own definitions take
// precedence over the C library's in every library that it loads.

#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "support/SimulationScheduler.h"

namespace {

template <typename Function>
Function systems(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

using OfMutex = int (*)(pthread_mutex_t*);

int systemTryLock(pthread_mutex_t* mutex) {
  static const auto function = systems<OfMutex>("pthread_mutex_trylock");
  return function(mutex);
}

int systemUnlock(pthread_mutex_t* mutex) {
  static const auto function = systems<OfMutex>("pthread_mutex_unlock");
  return function(mutex);
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "simulation: %s\n", what);
  std::abort();
}

/// A mutex that a simulated line has locked; the system has it locked as well, by the one thread that there is.
struct Held {
  pthread_mutex_t* mutex;
  const void* line;
  int depth;
};

struct ConditionWait {
  pthread_cond_t* condition;
  bool isOver;
};

// Few at any time. Plain arrays would do as well as vectors, but for their ends.
std::vector<Held>& held() {
  static auto* const locks = new std::vector<Held>;
  return *locks;
}

std::vector<ConditionWait*>& conditionWaits() {
  static auto* const waits = new std::vector<ConditionWait*>;
  return *waits;
}

Held* holdOn(const pthread_mutex_t* mutex) {
  const auto found = std::ranges::find(held(), mutex, &Held::mutex);
  return found == held().end() ? nullptr : &*found;
}

int lockInSimulation(test::SimulationScheduler& scheduler, pthread_mutex_t* mutex, bool waits) {
  const void* const line = scheduler.runningLine();
  for (;;) {
    Held* const hold = holdOn(mutex);
    if (!hold || hold->line == line) {
      const int result = systemTryLock(mutex);
      if (result != 0 && waits) fail("a line waits for a mutex that it holds itself, or that nobody will unlock");
      if (result != 0) return result;
      if (hold) {
        ++hold->depth;
      } else {
        held().push_back({mutex, line, 1});
      }
      return 0;
    }
    if (!waits) return EBUSY;
    if (scheduler.isChoosing()) fail("a choice depends on a mutex that a suspended line holds");
    scheduler.waitUntil([](void* wanted) { return !holdOn(static_cast<pthread_mutex_t*>(wanted)); }, mutex);
  }
}

void endWaits(pthread_cond_t* condition, bool all) {
  for (ConditionWait* wait : conditionWaits()) {
    if (wait->condition != condition || wait->isOver) continue;
    wait->isOver = true;
    if (!all) return;
  }
}

}  // namespace

extern "C" {

pthread_t pthread_self() noexcept {
  static const auto function = systems<pthread_t (*)()>("pthread_self");
  const auto* const scheduler = test::SimulationScheduler::active();
  const void* const line = scheduler ? scheduler->runningLine() : nullptr;
  return line ? reinterpret_cast<pthread_t>(line) : function();
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto function = systems<OfMutex>("pthread_mutex_lock");
  auto* const scheduler = test::SimulationScheduler::active();
  if (!scheduler) return function(mutex);
  scheduler->beforeLock();
  return lockInSimulation(*scheduler, mutex, true);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  auto* const scheduler = test::SimulationScheduler::active();
  return scheduler ? lockInSimulation(*scheduler, mutex, false) : systemTryLock(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  if (Held* const hold = holdOn(mutex); hold && --hold->depth == 0) {
    *hold = held().back();
    held().pop_back();
  }
  return systemUnlock(mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static const auto function = systems<int (*)(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
  auto* const scheduler = test::SimulationScheduler::active();
  if (!scheduler) return function(condition, mutex);
  ConditionWait wait{condition, false};
  conditionWaits().push_back(&wait);
  pthread_mutex_unlock(mutex);
  scheduler->waitUntil([](void* awaited) { return static_cast<ConditionWait*>(awaited)->isOver; }, &wait);
  std::erase(conditionWaits(), &wait);
  return lockInSimulation(*scheduler, mutex, true);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  static const auto function = systems<int (*)(pthread_cond_t*)>("pthread_cond_signal");
  endWaits(condition, false);
  return function(condition);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static const auto function = systems<int (*)(pthread_cond_t*)>("pthread_cond_broadcast");
  endWaits(condition, true);
  return function(condition);
}

}  // extern "C"

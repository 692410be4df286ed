#include <runtime/Scheduler.h>

#include <runtime/ThreadScheduler.h>

#include <atomic>
#include <cassert>
#include <cstddef>
#include <new>
#include <utility>

namespace runtime {

namespace {

constinit std::atomic<std::int64_t> liveLanes{0};
constinit std::atomic<Scheduler*> installedScheduler{nullptr};
constinit thread_local const Activity* activity = nullptr;

Scheduler& threadScheduler() noexcept {
  // Never destroyed: lanes may still run while the process ends.
  alignas(ThreadScheduler) static std::byte memory[sizeof(ThreadScheduler)];
  static ThreadScheduler* const scheduler = new (memory) ThreadScheduler;
  return *scheduler;
}

}  // namespace

Lane::Lane() noexcept {
  liveLanes.fetch_add(1, std::memory_order_relaxed);
}

Lane::~Lane() {
  liveLanes.fetch_sub(1, std::memory_order_relaxed);
}

std::int64_t liveLaneCount() noexcept {
  return liveLanes.load(std::memory_order_relaxed);
}

void Event::signal() {
  // Notified under the lock: the waiter often owns the event on its stack, and once it can see the signal
  // without the lock, the event may be gone.
  const std::lock_guard lock(_mutex);
  _signalled = true;
  _condition.notify_one();
}

bool Event::wait(Nanoseconds deadline) {
  return Scheduler::current().wait(*this, deadline);
}

bool Event::takeSignal() {
  const std::lock_guard lock(_mutex);
  return std::exchange(_signalled, false);
}

const Activity*& innermostActivity() noexcept {
  return activity;
}

bool isWithin(const void* subject) noexcept {
  for (const Activity* each = activity; each; each = each->outer) {
    if (each->subject == subject) return true;
  }
  return false;
}

Scheduler& Scheduler::current() noexcept {
  Scheduler* const installed = installedScheduler.load(std::memory_order_acquire);
  return installed ? *installed : threadScheduler();
}

void Scheduler::install(Scheduler* scheduler) noexcept {
  assert(liveLaneCount() == 0);
  installedScheduler.store(scheduler, std::memory_order_release);
}

}  // namespace runtime

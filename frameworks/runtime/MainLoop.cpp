#include <runtime/MainLoop.h>

#include <algorithm>
#include <utility>

namespace {

runtime::Nanoseconds deadlineAfter(double seconds) {
  const runtime::Nanoseconds now = runtime::Scheduler::current().now();
  if (!(seconds > 0)) return now;
  const double span = seconds * static_cast<double>(runtime::NanosecondsPerSecond);
  if (span >= static_cast<double>(runtime::Never - now)) return runtime::Never;
  return now + static_cast<runtime::Nanoseconds>(span);
}

}  // namespace

MainLoop& MainLoop::instance() {
  // Never destroyed: lanes may still add blocks while the process ends.
  static MainLoop* const loop = new MainLoop;
  return *loop;
}

void MainLoop::add(std::function<void()> block, const void* owner) {
  if (!block) return;
  {
    const std::lock_guard lock(_mutex);
    _entries.push_back({std::move(block), owner});
  }
  _changed.signal();
}

void MainLoop::cancel(const void* owner) noexcept {
  for (;;) {
    std::function<void()> block;  // destroyed after the unlock: what a block holds may call back into here
    const std::lock_guard lock(_mutex);
    const auto entry = std::ranges::find(_entries, owner, &Entry::owner);
    if (entry == _entries.end()) return;
    block = std::move(entry->block);
    _entries.erase(entry);
  }
}

MainLoop::RunResult MainLoop::run(double seconds, bool returnAfterBlock) {
  const runtime::Nanoseconds deadline = deadlineAfter(seconds);
  // Counted beforehand, so that a block which adds itself again cannot hold a run without time for ever.
  std::size_t due = waitingCount();
  for (;;) {
    if (takeStop()) return RunResult::Stopped;
    const bool timeLeft = runtime::Scheduler::current().now() < deadline;
    if (due == 0 && !timeLeft) return RunResult::TimedOut;
    if (due > 0) --due;
    if (runNext()) {
      if (returnAfterBlock) return RunResult::RanBlock;
    } else if (timeLeft) {
      _changed.wait(deadline);
    }
  }
}

void MainLoop::stop() {
  {
    const std::lock_guard lock(_mutex);
    _stopRequested = true;
  }
  _changed.signal();
}

std::size_t MainLoop::waitingCount() const {
  const std::lock_guard lock(_mutex);
  return _entries.size();
}

bool MainLoop::runNext() {
  std::function<void()> block;
  {
    const std::lock_guard lock(_mutex);
    if (_entries.empty()) return false;
    block = std::move(_entries.front().block);
    _entries.pop_front();
  }
  block();
  return true;
}

bool MainLoop::takeStop() {
  const std::lock_guard lock(_mutex);
  return std::exchange(_stopRequested, false);
}

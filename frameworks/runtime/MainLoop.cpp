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
    if (_lane) _lane->wake();
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
  if (!runtime::Scheduler::current().isMainThread()) return RunResult::NotHere;
  {
    const std::lock_guard lock(_mutex);
    if (_hasThread) return RunResult::NotHere;
    ++_runsUnderWay;
  }
  const RunResult result = runBlocks(seconds, returnAfterBlock);
  const std::lock_guard lock(_mutex);
  --_runsUnderWay;
  return result;
}

MainLoop::RunResult MainLoop::runBlocks(double seconds, bool returnAfterBlock) {
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

bool MainLoop::startThread() {
  if (runtime::isWithin(this)) return false;
  const std::lock_guard threadLock(_threadLock);
  if (_threadUsers == 0) {
    const std::lock_guard lock(_mutex);
    if (_runsUnderWay > 0) return false;
    _lane = runtime::Scheduler::current().makeLane("main queue", *this);
    _hasThread = true;
  }
  ++_threadUsers;
  return true;
}

void MainLoop::endThread() {
  if (runtime::isWithin(this)) return;
  const std::lock_guard threadLock(_threadLock);
  if (_threadUsers == 0 || --_threadUsers > 0) return;
  std::unique_ptr<runtime::Lane> ending;
  {
    const std::lock_guard lock(_mutex);
    ending = std::move(_lane);
  }
  ending.reset();
  _hasThread = false;
}

bool MainLoop::isCurrent() noexcept {
  return _hasThread ? runtime::isWithin(&instance()) : runtime::Scheduler::current().isMainThread();
}

runtime::Nanoseconds MainLoop::nextItemTime() {
  return waitingCount() > 0 ? 0 : runtime::Never;
}

void MainLoop::runNextItem() {
  const runtime::Activity activity{this, nullptr};
  runtime::innermostActivity() = &activity;
  runNext();
  runtime::innermostActivity() = nullptr;
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

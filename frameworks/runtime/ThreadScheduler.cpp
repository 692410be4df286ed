#include <runtime/ThreadScheduler.h>

#include <pthread.h>
#include <runtime/SignalsBlocked.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>

namespace runtime {

namespace {

using Clock = std::chrono::steady_clock;

/// What Clock reads as well, with one call less on the way. The coarse clock is the same one at the last timer tick.
Nanoseconds monotonicTime(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec * NanosecondsPerSecond + now.tv_nsec;
}

/// Waits until the predicate holds or the time has come.
template <typename Predicate>
bool waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, Nanoseconds deadline,
               Predicate holds) {
  if (deadline == Never) {
    condition.wait(lock, holds);
    return true;
  }
  const Clock::time_point time{std::chrono::nanoseconds(std::max<Nanoseconds>(deadline, 0))};
  return condition.wait_until(lock, time, holds);
}

/// What a lane and its thread share. It outlives the lane when the lane ends on its own thread.
struct LaneState {
  std::mutex mutex;
  std::condition_variable changed;
  bool woken = false;
  bool ended = false;

  /// Begins a round: a wake from now on concerns what the client says later. False when the lane has ended.
  bool beginRound() {
    const std::lock_guard lock(mutex);
    woken = false;
    return !ended;
  }

  /// Begins a round when there was a wake or the time has come.
  bool waitForRound(Nanoseconds deadline) {
    std::unique_lock lock(mutex);
    waitUntil(changed, lock, deadline, [this] { return woken || ended; });
    woken = false;
    return !ended;
  }
};

thread_local const LaneState* laneOfThisThread = nullptr;

/// The client may destroy the lane, and itself with it, in any of its items: nothing but the state is
/// touched between an item and the next round.
void runLane(LaneState& state, LaneClient& client) {
  bool goesOn = state.beginRound();
  while (goesOn) {
    const Nanoseconds due = client.nextItemTime();
    if (due <= 0 || (due != Never && due <= monotonicTime())) {  // for what is to run at once, the clock is not read
      client.runNextItem();
      goesOn = state.beginRound();
    } else {
      goesOn = state.waitForRound(due);
    }
  }
}

/// The kernel keeps 15 bytes of a thread's name; a character is not cut in half.
void nameThisThread(std::string name) {
  constexpr std::size_t Longest = 15;
  if (name.size() > Longest) {
    std::size_t length = Longest;
    while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80) --length;
    name.resize(length);
  }
  if (!name.empty()) pthread_setname_np(pthread_self(), name.c_str());
}

class ThreadLane final : public Lane {
 public:
  ThreadLane(std::string_view name, LaneClient& client) : _state(std::make_shared<LaneState>()) {
    const SignalsBlocked signalsBlocked;
    _thread = std::thread([state = _state, &client, threadName = std::string(name)] {
      nameThisThread(threadName);
      laneOfThisThread = state.get();
      runLane(*state, client);
    });
  }

  ~ThreadLane() override {
    {
      const std::lock_guard lock(_state->mutex);
      _state->ended = true;
    }
    if (isCurrent()) {
      _thread.detach();
    } else {
      _state->changed.notify_one();
      _thread.join();
    }
  }

  void wake() override {
    {
      const std::lock_guard lock(_state->mutex);
      _state->woken = true;
    }
    _state->changed.notify_one();
  }

 private:
  bool isCurrent() const { return laneOfThisThread == _state.get(); }

  std::shared_ptr<LaneState> _state;
  std::thread _thread;
};

}  // namespace

Nanoseconds ThreadScheduler::now() {
  return monotonicTime();
}

Nanoseconds ThreadScheduler::roughNow() {
  return monotonicTime(CLOCK_MONOTONIC_COARSE);
}

void ThreadScheduler::sleepUntil(Nanoseconds time) {
  const Nanoseconds absolute = std::max<Nanoseconds>(time, 0);
  const timespec until{static_cast<std::time_t>(absolute / NanosecondsPerSecond),
                       static_cast<long>(absolute % NanosecondsPerSecond)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

std::unique_ptr<Lane> ThreadScheduler::makeLane(std::string_view name, LaneClient& client) {
  return std::make_unique<ThreadLane>(name, client);
}

bool ThreadScheduler::wait(Event& event, Nanoseconds deadline) {
  std::unique_lock lock(event._mutex);
  if (!waitUntil(event._condition, lock, deadline, [&event] { return event._signalled; })) return false;
  event._signalled = false;
  return true;
}

bool ThreadScheduler::isMainThread() {
  static thread_local const bool isMain = gettid() == getpid();
  return isMain;
}

}  // namespace runtime

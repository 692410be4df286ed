#include <lumora/zThread.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

constexpr long MicrosecondsPerSecond = 1'000'000;
constexpr long NanosecondsPerSecond = 1'000'000'000;
constexpr long NanosecondsPerMicrosecond = 1'000;

/// Waits for a point in time rather than a span, so that interruptions neither shorten nor lengthen the wait.
void sleepOnMonotonicClock(unsigned int microseconds) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<long>(microseconds) / MicrosecondsPerSecond;
  deadline.tv_nsec += static_cast<long>(microseconds) % MicrosecondsPerSecond * NanosecondsPerMicrosecond;
  if (deadline.tv_nsec >= NanosecondsPerSecond) {
    deadline.tv_nsec -= NanosecondsPerSecond;
    ++deadline.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}

std::atomic<zThread::SleepFunction> sleepFunction = &sleepOnMonotonicClock;

}  // namespace

void zThread::MicroSleep(unsigned int microseconds) {
  sleepFunction.load()(microseconds);
}

void zThread::SetSleepFunction(SleepFunction function) noexcept {
  sleepFunction.store(function ? function : &sleepOnMonotonicClock);
}

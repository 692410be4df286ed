#include <lumora/zThread.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

void sleepOnMonotonicClock(unsigned int microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

std::atomic<zThread::SleepFunction> sleepFunction = &sleepOnMonotonicClock;

}  // namespace

void zThread::MicroSleep(unsigned int microseconds) {
  sleepFunction.load()(microseconds);
}

void zThread::SetSleepFunction(SleepFunction function) noexcept {
  sleepFunction.store(function ? function : &sleepOnMonotonicClock);
}

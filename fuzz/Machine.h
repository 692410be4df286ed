#pragma once

// A host's machine for one input: fake devices, virtual time, one thread. In the end the library has left nothing.

#include <Foundation/NSNotification.h>
#include <Foundation/NSObject.h>
#include <Hardware.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>

#include <memory>
#include <utility>
#include <vector>

#include "BRV_AVCapture.h"
#include "FuzzInput.h"
#include "support/SimulationScheduler.h"

namespace fuzz {

class Machine {
 public:
  explicit Machine(std::shared_ptr<hardware::Provider> provider) {
    hardware::installSystemProvider(std::move(provider));
    zThread::SetSleepFunction([](unsigned microseconds) { Machine::sleep(microseconds); });
    zTrace::Default().SetSink([](const char*) {});
  }

  ~Machine() {
    BRV_UninitializeLibrary();
    hardware::installSystemProvider(nullptr);
    NSRunLoop::mainRunLoop().runUntilIdle();
    require(NSObject::liveObjectCount() == _objectsBefore && runtime::liveLaneCount() == 0);
  }

  static void sleep(std::int64_t microseconds) {
    auto& scheduler = runtime::Scheduler::current();
    scheduler.sleepUntil(scheduler.now() + microseconds * 1000);
  }

  /// Runs the main loop, and with it everything else.
  static void run(double seconds) { NSRunLoop::mainRunLoop().runForSeconds(seconds); }

 private:
  const std::int64_t _objectsBefore = NSObject::liveObjectCount();
  test::SimulationScheduler _scheduler;
};

}  // namespace fuzz

#pragma once

// A host's machine for one input: fake devices, virtual time, one thread. In the end the library has left nothing.

#include <Hardware.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <runtime/NSObject.h>

#include <memory>
#include <utility>

#include "BRV_AVCapture.h"
#include "FuzzInput.h"
#include "support/MainLoop.h"
#include "support/SimulationScheduler.h"

namespace fuzz {

class Machine {
 public:
  explicit Machine(std::shared_ptr<hardware::Provider> provider) {
    hardware::installSystemProvider(std::move(provider));
    zThread::SetSleepFunction(test::SimulationScheduler::sleepFor);
    zTrace::Default().SetSink([](const char*) {});
  }

  ~Machine() {
    BRV_UninitializeLibrary();
    hardware::installSystemProvider(nullptr);
    runMainLoopUntilIdle();
    require(NSObject::liveObjectCount() == _objectsBefore && runtime::liveLaneCount() == 0);
  }

 private:
  const std::int64_t _objectsBefore = NSObject::liveObjectCount();
  test::SimulationScheduler _scheduler;
};

}  // namespace fuzz

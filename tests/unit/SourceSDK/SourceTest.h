#pragma once

// Fixture of tests of sources, which the manager makes of fake devices.

#include <utility>

#include "AVCaptureDelegate.h"
#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

class SourceTest : public FrameworkTest {
 public:
  using Devices = std::vector<std::shared_ptr<fake::Device>>;

  /// While what callbacks write to still exists.
  void TearDown() override { end(); }

  void detect(Devices devices) {
    end();
    provider = fake::install(std::move(devices));
    manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
  }
  void end() { delete std::exchange(manager, nullptr); }
  AV::Device& source(int index = 0) { return *manager->getDeviceWithIndex(index); }

  std::shared_ptr<fake::Provider> provider;
  AV::DeviceManager* manager = nullptr;
};

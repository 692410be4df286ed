#pragma once

// Fixture of tests of sources, which the manager makes of fake devices.

#include <utility>

#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

class SourceTest : public FrameworkTest {
 public:
  /// While what callbacks write to still exists.
  void TearDown() override { delete std::exchange(manager, nullptr); }

  void begin(std::vector<std::shared_ptr<fake::Device>> devices) {
    delete std::exchange(manager, nullptr);
    provider = fake::install(std::move(devices));
    manager = AV::DeviceManager::instance();
  }
  void detect(std::vector<std::shared_ptr<fake::Device>> devices) {
    begin(std::move(devices));
    manager->detectDeviceConnect();
  }
  AV::Device& source(int index = 0) { return *manager->getDeviceWithIndex(index); }

  std::shared_ptr<fake::Provider> provider;
  AV::DeviceManager* manager = nullptr;
};

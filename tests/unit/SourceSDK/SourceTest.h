#pragma once

// Fixture of tests of sources, which the manager makes of fake devices. In the end everything that outputs handed over
// has been received by the sources' delegates.

#include <utility>

#include "AVCaptureDelegate.h"
#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

class SourceTest : public FrameworkTest {
 public:
  using Devices = std::vector<std::shared_ptr<fake::Device>>;

  /// While what callbacks write to still exists.
  void TearDown() override {
    end();
    EXPECT_EQ(VCaptureDelegate::receivedByFormer() - _received.first, handedOver(AVMediaTypeVideo) - _handedOver.first);
    EXPECT_EQ(ACaptureDelegate::receivedByFormer() - _received.second,
              handedOver(AVMediaTypeAudio) - _handedOver.second);
  }

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

 private:
  static std::uint64_t handedOver(AVMediaType medium) { return SampleLedger::of(medium).ended.delivered; }

  const std::pair<std::uint64_t, std::uint64_t> _received{VCaptureDelegate::receivedByFormer(),
                                                          ACaptureDelegate::receivedByFormer()};
  const std::pair<std::uint64_t, std::uint64_t> _handedOver{handedOver(AVMediaTypeVideo), handedOver(AVMediaTypeAudio)};
};

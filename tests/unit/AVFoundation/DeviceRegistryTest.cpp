#include <AVFoundation/AVFoundation.h>
#include <gmock/gmock.h>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using DeviceRegistryTest = FrameworkTest;

TEST_F(DeviceRegistryTest, ADeviceThatComesBackIsTheSameObjectWithItsSettings) {
  auto camera = fake::camera("Cam", "c");
  camera->described.videoFormats.push_back(fake::videoFormat(128, 96));
  auto second = std::make_shared<fake::Device>(camera->described);
  auto provider = fake::install({camera, fake::microphone("Mic", "m")});
  const auto device = AVCaptureDevice::devices().front();
  ASSERT_TRUE(device->lockForConfiguration(nullptr));
  device->setActiveFormat(device->formats()[1].get());
  device->unlockForConfiguration();

  provider->unplug(camera);
  EXPECT_FALSE(device->isConnected());
  Ref<NSError> error;
  ASSERT_FALSE(device->lockForConfiguration(&error));
  EXPECT_THAT(error->localizedDescription(), testing::HasSubstr("not connected"));
  EXPECT_FALSE(AVCaptureDeviceInput::initWithDevice(device.get(), &error));
  bool wasListedTooSoon = false;
  second->whileSelecting = [&] { wasListedTooSoon = AVCaptureDevice::devices().size() > 1; };
  provider->plug(second);

  EXPECT_FALSE(wasListedTooSoon);
  EXPECT_EQ(AVCaptureDevice::devices().back(), device);
  EXPECT_EQ(second->selectedVideoFormat, 1U);
}

}  // namespace

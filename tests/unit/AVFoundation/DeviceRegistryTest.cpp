#include <AVFoundation/AVFoundation.h>
#include <gmock/gmock.h>

#include <thread>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using testing::HasSubstr;

class DeviceRegistryTest : public FrameworkTest {
 protected:
  /// Whether the thread could lock the device, which is unlocked again; `error` tells why not.
  bool lock(AVCaptureDevice& device) {
    const bool isLocked = device.lockForConfiguration(&error);
    if (isLocked) device.unlockForConfiguration();
    return isLocked;
  }

  std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
  Ref<NSError> error;
};

TEST_F(DeviceRegistryTest, ADeviceThatComesBackIsTheSameObjectWithItsSettings) {
  camera->described.videoFormats.push_back(fake::videoFormat(128, 96));
  auto second = std::make_shared<fake::Device>(camera->described);
  auto provider = fake::install({camera, fake::microphone("Mic", "m")});
  const auto device = AVCaptureDevice::devices().front();
  ASSERT_TRUE(device->lockForConfiguration(nullptr));
  device->setActiveFormat(device->formats()[1].get());
  device->unlockForConfiguration();

  provider->unplug(camera);
  EXPECT_FALSE(device->isConnected());
  ASSERT_FALSE(lock(*device));
  EXPECT_THAT(error->localizedDescription(), HasSubstr("not connected"));
  EXPECT_FALSE(AVCaptureDeviceInput::initWithDevice(device.get(), &error));
  bool wasListedTooSoon = false;
  second->whileSelecting = [&] { wasListedTooSoon = AVCaptureDevice::devices().size() > 1; };
  provider->plug(second);

  EXPECT_FALSE(wasListedTooSoon);
  EXPECT_EQ(AVCaptureDevice::devices().back(), device);
  EXPECT_EQ(second->selectedVideoFormat, 1U);
}

}  // namespace

#include <AVFoundation/AVFoundation.h>
#include <gmock/gmock.h>

#include <thread>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using testing::HasSubstr;

using DeviceRegistryTest = FrameworkTest;

TEST_F(DeviceRegistryTest, ADeviceThatComesBackIsTheSameObjectWithItsSettings) {
  auto first = fake::camera("Cam", "c");
  first->described.videoFormats.push_back(fake::videoFormat(128, 96));
  auto second = std::make_shared<fake::Device>(first->described);
  auto provider = fake::install({first, fake::microphone("Mic", "m")});
  const auto device = AVCaptureDevice::devices().front();
  ASSERT_TRUE(device->lockForConfiguration(nullptr));
  device->setActiveFormat(device->formats()[1].get());
  device->unlockForConfiguration();

  provider->unplug(first);
  EXPECT_FALSE(device->isConnected());
  Ref<NSError> error;
  EXPECT_FALSE(device->lockForConfiguration(&error));
  EXPECT_THAT(error->localizedDescription(), HasSubstr("not connected"));
  EXPECT_FALSE(AVCaptureDeviceInput::initWithDevice(device.get(), &error));
  provider->plug(second);

  EXPECT_EQ(AVCaptureDevice::devices().back(), device);
  EXPECT_EQ(second->selectedVideoFormat, 1U);
}

TEST_F(DeviceRegistryTest, ADeviceIsListedOnlyOnceItCanBeOpened) {
  auto provider = fake::install({});
  EXPECT_TRUE(AVCaptureDevice::devices().empty());
  auto camera = fake::camera("Cam", "c");
  bool wasListedTooSoon = false;
  camera->whileSelecting = [&] { wasListedTooSoon |= !AVCaptureDevice::devices().empty(); };

  provider->plug(camera);

  EXPECT_FALSE(wasListedTooSoon);
  EXPECT_EQ(AVCaptureDevice::devices().size(), 1U);
}

TEST_F(DeviceRegistryTest, OneThreadAtATimeHoldsTheConfigurationLock) {
  auto camera = fake::camera("Cam", "c");
  fake::install({camera});
  const auto device = AVCaptureDevice::devices().front();
  const auto lockElsewhere = [&](Ref<NSError>* error) {
    bool isLocked = false;
    std::thread([&] {
      isLocked = device->lockForConfiguration(error);
      device->unlockForConfiguration();
    }).join();
    return isLocked;
  };
  Ref<NSError> error;

  ASSERT_TRUE(device->lockForConfiguration(nullptr));
  ASSERT_TRUE(device->lockForConfiguration(nullptr)) << "the holder may nest";
  device->unlockForConfiguration();
  EXPECT_FALSE(lockElsewhere(&error));
  EXPECT_THAT(error->localizedDescription(), HasSubstr("another thread"));
  device->unlockForConfiguration();
  EXPECT_TRUE(lockElsewhere(nullptr));

  camera->configurationError = "Taken.";
  EXPECT_FALSE(device->lockForConfiguration(&error));
  EXPECT_EQ(error->localizedDescription(), "Taken.");
}

}  // namespace

#include <AVFoundation/AVFoundation.h>
#include <gmock/gmock.h>

#include <thread>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class DeviceRegistryTest : public FrameworkTest {
 protected:
  static std::vector<std::string> ids(const std::vector<Ref<AVCaptureDevice>>& devices) {
    std::vector<std::string> found;
    for (const auto& device : devices) found.push_back(device->uniqueID());
    return found;
  }
};

TEST_F(DeviceRegistryTest, DevicesAreListedByMediumAndLinkedWhilePresent) {
  auto microphone = fake::microphone("Mic", "m", {"c"});
  auto provider = fake::install({fake::camera("Cam", "c", {"m", "absent"}), microphone, fake::camcorder("Deck", "d")});

  EXPECT_THAT(ids(AVCaptureDevice::devices()), ElementsAre("c", "m", "d"));
  EXPECT_THAT(ids(AVCaptureDevice::devicesWithMediaType(AVMediaTypeMuxed)), ElementsAre("d"));
  const auto camera = AVCaptureDevice::devices().front();
  EXPECT_THAT(ids(camera->linkedDevices()), ElementsAre("m"));

  provider->unplug(microphone);
  EXPECT_TRUE(camera->linkedDevices().empty());
}

TEST_F(DeviceRegistryTest, ADeviceThatComesBackIsTheSameObjectWithItsSettings) {
  hardware::DeviceDescription description = fake::camera("Cam", "c")->description();
  description.videoFormats.push_back(fake::videoFormat(128, 96));
  auto first = std::make_shared<fake::Device>(description);
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
  auto second = std::make_shared<fake::Device>(description);
  provider->plug(second);

  EXPECT_THAT(ids(AVCaptureDevice::devices()), ElementsAre("m", "c"));
  EXPECT_EQ(AVCaptureDevice::devices().back(), device);
  EXPECT_EQ(second->selectedVideoFormat, 1U);
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

TEST_F(DeviceRegistryTest, SettingsNeedTheLockAndMustBeTheDevicesOwn) {
  auto camera = fake::camera("Cam", "c");
  fake::install({camera, fake::camera("Other", "o")});
  const auto device = AVCaptureDevice::devices()[0];
  const auto foreign = AVCaptureDevice::devices()[1]->formats()[0];
  testing::internal::CaptureStderr();

  device->setActiveVideoMinFrameDuration(CMTimeMake(1, 15));  // without the lock
  ASSERT_TRUE(device->lockForConfiguration(nullptr));
  device->setActiveFormat(foreign.get());
  device->setActiveVideoMinFrameDuration(CMTimeMake(1, 120));  // outside the ranges
  EXPECT_EQ(CMTimeCompare(device->activeVideoMinFrameDuration(), CMTimeMake(1, 30)), 0);
  device->setActiveVideoMinFrameDuration(CMTimeMake(1, 15));
  device->unlockForConfiguration();

  EXPECT_EQ(CMTimeCompare(camera->selectedFrameDuration, CMTimeMake(1, 15)), 0);
  const std::string complaints = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(complaints.begin(), complaints.end(), '\n'), 3) << complaints;
}

TEST_F(DeviceRegistryTest, UnpluggedDevicesAreForgottenOnceNobodyHoldsThem) {
  auto provider = fake::install({});
  AVCaptureDevice::devices();
  const auto before = NSObject::liveObjectCount();
  for (int i = 0; i < 100; ++i) {
    auto camera = fake::camera("Cam", "c" + std::to_string(i));
    provider->plug(camera);
    provider->unplug(camera);
  }
  EXPECT_EQ(NSObject::liveObjectCount(), before);
}

}  // namespace

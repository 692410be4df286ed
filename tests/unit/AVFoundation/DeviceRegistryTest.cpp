#include <AVFoundation/AVFoundation.h>
#include <gmock/gmock.h>

#include <thread>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using DeviceRegistryTest = FrameworkTest;

TEST_F(DeviceRegistryTest, ADeviceThatOneThreadConfiguresComesBackAsTheSameObjectWithItsSettings) {
  auto camera = fake::camera("Cam", "c");
  camera->described.videoFormats.push_back(fake::videoFormat(128, 96));
  camera->described.videoFormats[1].presentationWidth = 171;
  camera->described.videoFormats[1].presentationHeight = 97;
  camera->described.initialVideoFormat = 2;  // of none
  auto second = std::make_shared<fake::Device>(camera->described);
  auto provider = fake::install({camera, fake::microphone("Mic", "m")});
  const auto device = AVCaptureDevice::devices().front();
  EXPECT_EQ(device->activeFormat(), device->formats()[0]);
  const auto shown =
      CMVideoFormatDescriptionGetPresentationDimensions(device->formats()[1]->formatDescription(), true, true);
  EXPECT_TRUE(shown.width == 171 && shown.height == 97);
  Ref<NSError> error;
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(device->lockForConfiguration(nullptr));
  device->unlockForConfiguration();
  std::thread([&] {
    EXPECT_FALSE(device->lockForConfiguration(&error));
    device->unlockForConfiguration();
    device->setActiveFormat(device->formats()[1].get());
  }).join();
  EXPECT_THAT(error->localizedDescription(), testing::HasSubstr("by another thread"));
  EXPECT_EQ(camera->selectedVideoFormat, 0U);
  device->setActiveFormat(device->formats()[1].get());
  // Rates from 1 to 30, both included.
  for (const auto& [given, taken] : {std::pair{CMTimeMake(1, 30), 30},
                                     {CMTimeMake(1, 31), 30},
                                     {CMTimeMake(1, 1), 1},
                                     {CMTimeMake(11, 10), 1},
                                     {CMTimeMake(1, 25), 25}}) {
    device->setActiveVideoMinFrameDuration(given);
    EXPECT_EQ(camera->selectedFrameDuration.timescale, taken);
  }
  device->unlockForConfiguration();
  device->unlockForConfiguration();
  device->setActiveFormat(device->formats()[0].get());
  device->setActiveVideoMinFrameDuration(CMTimeMake(1, 30));

  provider->unplug(camera);
  EXPECT_FALSE(device->isConnected());
  ASSERT_FALSE(device->lockForConfiguration(&error));
  EXPECT_THAT(error->localizedDescription(), testing::HasSubstr("not connected"));
  EXPECT_FALSE(AVCaptureDeviceInput::initWithDevice(device.get(), &error));
  bool wasListedTooSoon = false;
  second->whileSelecting = [&] { wasListedTooSoon = AVCaptureDevice::devices().size() > 1; };
  provider->plug(second);

  EXPECT_FALSE(wasListedTooSoon);
  EXPECT_EQ(AVCaptureDevice::devices().back(), device);
  EXPECT_EQ(second->selectedVideoFormat, 1U);
  EXPECT_EQ(second->selectedFrameDuration.timescale, 25);
}

}  // namespace

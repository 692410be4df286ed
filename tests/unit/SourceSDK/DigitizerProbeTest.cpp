#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <gmock/gmock.h>

#include "AVCaptureDevice+VDIGCategory.h"
#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

std::shared_ptr<fake::Device> cameraWith(std::string id, bool isKnown, bool hasDigitizer) {
  hardware::DeviceDescription description = fake::camera(id, id)->description();
  description.isKnownToCoreMediaIO = isKnown;
  description.hasVideoDigitizer = hasDigitizer;
  return std::make_shared<fake::Device>(std::move(description));
}

class DigitizerProbeTest : public FrameworkTest {
 protected:
  ~DigitizerProbeTest() override { delete manager; }

  void detect(std::vector<std::shared_ptr<fake::Device>> devices) {
    provider = fake::install(std::move(devices));
    manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
  }

  /// What the source answers, and what it wrote to the standard error meanwhile.
  std::pair<bool, std::string> probe(std::size_t source) {
    testing::internal::CaptureStderr();
    const bool answer = manager->getDeviceWithIndex(static_cast<int>(source))->_HasVideoDigitizerComponents();
    return {answer, testing::internal::GetCapturedStderr()};
  }

  std::shared_ptr<fake::Provider> provider;
  AV::DeviceManager* manager = nullptr;
};

TEST_F(DigitizerProbeTest, ASourceAsksCoreMediaIOAboutItsCamera) {
  detect({cameraWith("frame grabber", true, true), cameraWith("webcam", true, false),
          cameraWith("stranger", false, true), fake::camcorder("Camcorder", "camcorder"),
          fake::microphone("Microphone", "microphone")});

  EXPECT_THAT(probe(0), testing::Pair(true, IsEmpty()));
  EXPECT_THAT(probe(1), testing::Pair(false, IsEmpty()));
  const std::string failure = "Failed to get CMIODevice from UID stranger\n";
  EXPECT_THAT(probe(2), testing::Pair(false, testing::EndsWith(failure)));
  EXPECT_THAT(probe(3), testing::Pair(false, IsEmpty()));
  EXPECT_THAT(probe(4), testing::Pair(false, IsEmpty())) << "a source without a camera does not ask";
}

TEST_F(DigitizerProbeTest, AnObjectStandsForADeviceWhileItIsPluggedIn) {
  auto grabber = cameraWith("frame grabber", true, true);
  detect({cameraWith("webcam", true, false), grabber});
  const auto device = AVCaptureDevice::devices()[1];
  const CMIOObjectPropertyAddress digitizer{kCMIODevicePropertyVideoDigitizerComponents, kCMIOObjectPropertyScopeGlobal,
                                            kCMIOObjectPropertyElementMaster};

  const CMIOObjectID objectID = coreMediaID(*device);
  EXPECT_TRUE(CMIOObjectHasProperty(objectID, &digitizer));
  EXPECT_FALSE(CMIOObjectHasProperty(objectID + 1000, &digitizer));
  EXPECT_FALSE(CMIOObjectHasProperty(0, &digitizer));
  EXPECT_FALSE(CMIOObjectHasProperty(objectID, nullptr));

  provider->unplug(grabber);
  EXPECT_FALSE(CMIOObjectHasProperty(objectID, &digitizer));
  testing::internal::CaptureStderr();
  EXPECT_EQ(coreMediaID(*device), 0u);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Failed to get CMIODevice from UID frame grabber\n"));

  provider->plug(grabber);
  EXPECT_EQ(coreMediaID(*device), objectID);
}

TEST_F(DigitizerProbeTest, TranslationsOfTheWrongShapeAreRefused) {
  detect({cameraWith("webcam", true, false)});
  const auto text = CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, "webcam", kCFStringEncodingUTF8));
  CFStringRef uniqueID = text.get();
  CMIOObjectID objectID = 7;
  const AudioValueTranslation good{&uniqueID, sizeof uniqueID, &objectID, sizeof objectID};
  const auto get = [&](AudioValueTranslation translation, UInt32 size, CMIOObjectPropertySelector selector) {
    const CMIOObjectPropertyAddress address{selector, kCMIOObjectPropertyScopeGlobal, 0};
    return CMIOObjectGetPropertyData(kCMIOObjectSystemObject, &address, 0, nullptr, size, nullptr, &translation);
  };
  constexpr auto DeviceForUID = kCMIOHardwarePropertyDeviceForUID;
  AudioValueTranslation shortInput = good, noOutput = good;
  shortInput.mInputDataSize = 4;
  noOutput.mOutputData = nullptr;

  EXPECT_EQ(get(good, 16, DeviceForUID), kCMIOHardwareBadPropertySizeError);
  EXPECT_EQ(get(shortInput, sizeof good, DeviceForUID), kCMIOHardwareBadPropertySizeError);
  EXPECT_EQ(get(noOutput, sizeof good, DeviceForUID), kCMIOHardwareBadPropertySizeError);
  EXPECT_EQ(get(good, sizeof good, kCMIOHardwarePropertyAllowScreenCaptureDevices), kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(objectID, 7u);
  EXPECT_EQ(get(good, sizeof good, DeviceForUID), kCMIOHardwareNoError);
  EXPECT_NE(objectID, 7u);
}

}  // namespace

#include <gmock/gmock.h>

#include "AVCaptureDevice+VDIGCategory.h"
#include "SourceTest.h"

namespace {

using DigitizerProbeTest = SourceTest;

std::shared_ptr<fake::Device> cameraWith(std::string id, bool isKnown, bool hasDigitizer) {
  auto camera = fake::camera(id, id);
  camera->described.isKnownToCoreMediaIO = isKnown;
  camera->described.hasVideoDigitizer = hasDigitizer;
  return camera;
}

TEST_F(DigitizerProbeTest, ASourceAsksCoreMediaIOAboutItsCamera) {
  const auto grabber = cameraWith("frame grabber", true, true);
  detect({grabber, cameraWith("webcam", true, false), cameraWith("stranger", false, true),
          fake::camcorder("Camcorder", "camcorder"), fake::microphone("Microphone", "microphone")});
  const auto device = AVCaptureDevice::devices().front();
  std::vector<bool> answers;

  testing::internal::CaptureStderr();
  for (int i = 0; i < manager->getDeviceCount(); ++i) answers.push_back(source(i)._HasVideoDigitizerComponents());

  provider->unplug(grabber);
  answers.push_back(hasVDIGComponent(*device));

  EXPECT_THAT(answers, testing::ElementsAre(true, false, false, false, false, false));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::ContainsRegex("from UID stranger\n.*Failed to get CMIODevice from UID frame grabber\n$"));
}

}  // namespace

#include <gmock/gmock.h>
#include <lumora/zThread.h>

#include <array>
#include <system_error>

#include "AVDeviceManager.h"
#include "BRV_AVCapture.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"

// What a host is told by entry points whose work fails, or whose source has gone.

namespace {

using testing::ElementsAre;

class EntryPointsTest : public FrameworkTest {
 protected:
  EntryPointsTest() {
    zThread::SetSleepFunction([](unsigned) {});
    BRV_IntitializeLibrary();
    AV::DeviceManager::instance()->detectDeviceConnect();
  }
  ~EntryPointsTest() override {
    BRV_UninitializeLibrary();
    zThread::SetSleepFunction(nullptr);
  }

  void registerVideo() {
    BRV_RegisterVideoDataArrivedCallback(
        nullptr, "Cam Video", [](void*, BRV_VideoBuffer*) {}, this);
  }

  static std::string errorMessage(int code) {
    int length = 0;
    BRV_GetErrorMessage(nullptr, nullptr, code, nullptr, &length);
    std::string text(static_cast<std::size_t>(length) + 1, '?');
    BRV_GetErrorMessage(nullptr, nullptr, code, text.data(), &length);
    text.pop_back();
    return text;
  }

  const std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
  const std::shared_ptr<fake::Provider> provider = fake::install({camera});
  LogCapture log;
};

TEST_F(EntryPointsTest, WhatKeepsASourceFromDeliveringIsLoggedAndHasAMessage) {
  camera->whileStarting = [] { throw std::system_error(EAGAIN, std::generic_category(), "No thread"); };
  registerVideo();
  const std::string reason = errorMessage(0);
  EXPECT_THAT(reason, testing::HasSubstr("No thread"));

  camera->whileStarting = [] { throw std::bad_alloc(); };
  EXPECT_EQ(BRV_SetSourceSettings(nullptr, "Cam Video", ""), 0);
  EXPECT_EQ(errorMessage(0), "Out of memory.");

  camera->whileStarting = {};
  camera->configurationError = "Busy elsewhere.";
  registerVideo();
  EXPECT_TRUE(camera->isRunning());
  EXPECT_EQ(errorMessage(0), "Busy elsewhere.");

  camera->fail("Someone pulled the cable.");
  EXPECT_EQ(errorMessage(0), "Someone pulled the cable.");

  EXPECT_THAT(log.lines(), ElementsAre("4 Error Starting Source Cam Video: " + reason + "\n",
                                       "4 Error Starting Source Cam Video: Out of memory.\n",
                                       "4 Error Starting Source Cam Video: Busy elsewhere.\n",
                                       "4 Error Running Source Cam Video: Someone pulled the cable.\n"));
}

}  // namespace

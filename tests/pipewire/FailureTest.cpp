#include <filesystem>
#include <fstream>
#include <string>

#include "PipeWireTest.h"
#include "support/OpenDescriptors.h"

// What goes wrong while a host captures: cameras that are taken, forbidden, broken or pulled, and servers that crash.

namespace test::pipewire {
namespace {

class FailureTest : public PipeWireTest {};

std::ptrdiff_t threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// Memory that this process shares with others, in pieces.
std::ptrdiff_t sharedMemory() {
  std::ifstream maps("/proc/self/maps");
  std::ptrdiff_t count = 0;
  for (std::string line; std::getline(maps, line);) count += line.find("s ") != std::string::npos;
  return count;
}

TEST_F(FailureTest, TheReasonIsReportedAndCaptureResumesOnceItHasGone) {
  server.setWebcam("busy");
  const ServerObject camera("spa-node-factory", webcam("Webcam"));
  Host host;
  ASSERT_TRUE(hasSources(host, {"Webcam Video"}));
  const VideoTake take(host, "Webcam Video", {webcamPicture}, 10);
  const struct {
    const char *state, *reason;
  } steps[] = {{"busy", "busy"}, {"denied", "permission"}, {"", ""}, {"gone", "no such device"}, {"", ""}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.state);
    server.setWebcam(step.state);
    if (*step.state == 0)
      EXPECT_TRUE(take.waitForMore(3));
    else
      EXPECT_TRUE(until([&] { return host.errorMessage(0).find(step.reason) != std::string::npos; }, 10))
          << host.errorMessage(0);
  }
}

TEST_F(FailureTest, PicturesOfAnotherCameraNeverArrive) {
  // In every picture of the other camera is something else.
  const Camera other({.name = "other", .description = "Other", .corruptEvery = 1});
  Host host;
  for (int i = 0; i < timesOf("PIPEWIRE_PULLS", 6); ++i) {
    Camera camera;
    ASSERT_TRUE(hasSources(host, {"Camera Video", "Other Video"}));
    const VideoTake take(host, "Camera Video");
    // At once, and when the session manager has linked it, who may then move the stream.
    EXPECT_TRUE(i % 2 == 1 || take.waitForMore(3));
    camera.pull();
    ASSERT_TRUE(hasSources(host, {"Other Video"}));
  }
}

TEST_F(FailureTest, AHostThatRegistersAgainHasPicturesAfterTheServerCrashed) {
  Camera camera;
  Microphone microphone;
  Host host;
  int changes[2] = {0, 0};
  const auto changed = [](void* context, int state) {
    ++static_cast<int*>(context)[state == BRV_DEVICE_STATE_REMOVED];
  };
  BRV_CALL(host.module, BRV_RegisterDeviceStateChangedCallback)(nullptr, changed, changes);
  for (int i = 0; i < timesOf("PIPEWIRE_CRASHES", 2); ++i) {
    ASSERT_TRUE(hasSources(host, {"Camera Video", "Microphone Audio"}));
    const VideoTake take(host, "Camera Video");
    ASSERT_TRUE(take.waitForMore(3));
    changes[0] = changes[1] = 0;

    server.kill();
    ASSERT_TRUE(hasSources(host, {}));
    camera.pull();
    microphone.pull();
    server.start();
    camera.plug();
    microphone.plug();
    ASSERT_TRUE(hasSources(host, {"Camera Video", "Microphone Audio"}));
    EXPECT_TRUE(until([&] { return changes[0] == 2 && changes[1] == 2; }, 5)) << changes[0] << " " << changes[1];
  }
}

// The server makes these devices: what is counted is the host's alone.
TEST_F(FailureTest, PlugsAndPullsLeaveNothing) {
  Host host;
  std::ptrdiff_t descriptorsBefore = 0, threadsBefore = 0, memoryBefore = 0;
  std::int64_t objectsBefore = 0;
  const int times = timesOf("PIPEWIRE_PLUGS", 12);
  for (int i = 0; i <= times; ++i) {
    {
      const ServerObject camera("spa-node-factory", webcam("Webcam"));
      const ServerObject microphone("adapter", {{"factory.name", "audiotestsrc"},
                                                {PW_KEY_MEDIA_CLASS, "Audio/Source"},
                                                {PW_KEY_NODE_NAME, "microphone"},
                                                {PW_KEY_NODE_DESCRIPTION, "Microphone"}});
      ASSERT_TRUE(hasSources(host, {"Webcam Video", "Microphone Audio"}));
      const VideoTake take(host, "Webcam Video", {webcamPicture}, 10);
      EXPECT_TRUE(i % 4 != 0 || take.waitForMore(1));
      host.account("Webcam Video", "video");  // which has to add up
    }
    ASSERT_TRUE(hasSources(host, {}));
    if (i > 0) continue;
    memoryBefore = sharedMemory(), descriptorsBefore = openDescriptors(), threadsBefore = threads(),
    objectsBefore = NSObject::liveObjectCount();
  }
  EXPECT_TRUE(until([&] { return openDescriptors() <= descriptorsBefore; }, 5)) << openDescriptors();
  EXPECT_TRUE(until([&] { return sharedMemory() <= memoryBefore; }, 5)) << sharedMemory();
  EXPECT_TRUE(until([&] { return threads() <= threadsBefore; }, 5)) << threads();
  // The source that went last may still be there, of some thirty objects.
  EXPECT_LT(NSObject::liveObjectCount(), objectsBefore + 40);
}

}  // namespace
}  // namespace test::pipewire

#include <filesystem>

#include "PipeWireTest.h"
#include "support/OpenDescriptors.h"

// What goes wrong while a host captures: cameras that are taken, forbidden, broken or pulled, and servers that crash.

namespace test::pipewire {
namespace {

class FailureTest : public PipeWireTest {};

std::ptrdiff_t threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST_F(FailureTest, TheReasonIsReportedAndCaptureResumesOnceItHasGone) {
  const struct {
    const char* state;
    const char* reason;
    bool isFromTheStart;
  } cases[] = {{"busy", "busy", true},

               {"denied", "permission", true},
               {"gone", "no such device", false}};
  for (const auto& [state, reason, isFromTheStart] : cases) {
    SCOPED_TRACE(state);
    server.setWebcam("");
    const ServerObject camera(PW_TYPE_INTERFACE_Node, webcam(state));
    Host host;
    const std::string source = state + std::string(" Video");
    ASSERT_TRUE(hasSources(host, {source}));
    if (isFromTheStart) server.setWebcam(state);
    const VideoTake take(host, source, {{MotionJPEG, 1920, 1080}}, 10);
    if (!isFromTheStart) {
      ASSERT_TRUE(take.waitForMore(3));
      server.setWebcam(state);
    }
    EXPECT_TRUE(until([&] { return host.errorMessage(0).find(reason) != std::string::npos; }, 10))
        << host.errorMessage(0);

    server.setWebcam("");
    EXPECT_TRUE(take.waitForMore(3));
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
    EXPECT_EQ(changes[0], 2);
    EXPECT_EQ(changes[1], 2);
  }
}

TEST_F(FailureTest, PlugsAndPullsLeaveNothing) {
  Host host;
  std::ptrdiff_t descriptorsBefore = 0, threadsBefore = 0;
  std::int64_t objectsBefore = 0;
  const int times = timesOf("PIPEWIRE_PLUGS", 12);
  for (int i = 0; i <= times; ++i) {
    {
      const Camera camera;
      const Microphone microphone;
      ASSERT_TRUE(hasSources(host, {"Camera Video", "Microphone Audio"}));
      const VideoTake take(host, "Camera Video");
      EXPECT_TRUE(i % 4 != 0 || take.waitForMore(1));
    }
    ASSERT_TRUE(hasSources(host, {}));
    if (i > 0) continue;
    descriptorsBefore = openDescriptors(), threadsBefore = threads(), objectsBefore = NSObject::liveObjectCount();
  }
  EXPECT_TRUE(until([&] { return openDescriptors() <= descriptorsBefore; }, 5)) << openDescriptors();
  EXPECT_TRUE(until([&] { return threads() <= threadsBefore; }, 5)) << threads();
  // What went last may still be known.
  EXPECT_LT(NSObject::liveObjectCount(), objectsBefore + times);
}

}  // namespace
}  // namespace test::pipewire

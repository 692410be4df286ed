#include <sys/resource.h>

#include "PipeWireTest.h"
#include "support/OpenDescriptors.h"

// What goes wrong while a host captures: cameras that are taken, forbidden, broken or pulled.

namespace test::pipewire {
namespace {

class FailureTest : public PipeWireTest {};

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

TEST_F(FailureTest, AProgramThatMayOpenNoMoreFilesIsToldAndCapturesOnceItMay) {
  const Camera camera;
  Host host;
  ASSERT_TRUE(hasSources(host, {"Camera Video"}));
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  // Two more than are open: the sanitizers look at memory through a pipe.
  const rlimit few{static_cast<rlim_t>(openDescriptors()) + 2, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  {
    const VideoTake take(host, "Camera Video");
    EXPECT_THAT(host.errorMessage(0), testing::HasSubstr("Too many open files"));
  }
  setrlimit(RLIMIT_NOFILE, &usual);
  const VideoTake take(host, "Camera Video");
  EXPECT_TRUE(take.waitForMore(3));
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

}  // namespace
}  // namespace test::pipewire

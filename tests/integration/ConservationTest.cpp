#include <gtest/gtest.h>
#include <lumora/zThread.h>
#include <simulated/DemoRig.h>

#include <atomic>
#include <cstdlib>
#include <map>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

// Real-time rigs: what the devices captured is what arrived or was reported as dropped.

namespace {

struct Counts {
  std::atomic<std::uint64_t> video{0};
  std::atomic<std::uint64_t> audio{0};
  std::atomic<bool> isRegistered{true};

  static void onVideo(void* context, BRV_VideoBuffer*) {
    auto& self = *static_cast<Counts*>(context);
    EXPECT_TRUE(self.isRegistered);
    ++self.video;
  }
  static void onAudio(void* context, BRV_AudioBuffer*) {
    auto& self = *static_cast<Counts*>(context);
    EXPECT_TRUE(self.isRegistered);
    ++self.audio;
  }
};

class ConservationTest : public FrameworkTest {
 protected:
  ConservationTest() {
    zThread::SetSleepFunction([](unsigned) {});
  }
  ~ConservationTest() override { zThread::SetSleepFunction(nullptr); }

  /// Runs every source of the rig for a while; the pictures captured are those delivered and those dropped.
  void run(const std::string& rig, std::vector<const char*> cameras, double seconds) {
    provider = rigs::install(rig);
    Host host;
    for (const auto& source : host.sources()) {
      host.registerVideo(source, Counts::onVideo, &counts[source]);
      host.registerAudio(source, Counts::onAudio, &counts[source]);
    }
    NSRunLoop::mainRunLoop().runForSeconds(seconds);
    host.disconnect();

    std::uint64_t captured = 0, delivered = 0;
    for (const char* id : cameras) captured += provider->device(id)->capturedVideo();
    for (const auto& [source, count] : counts) delivered += count.video;
    dropped = static_cast<std::uint64_t>(host.logged("Dropped a Frame!\n"));
    EXPECT_GT(delivered, 0U);
    EXPECT_EQ(captured, delivered + dropped + unclaimedFrames());
    RecordProperty("captured", std::to_string(captured));
    RecordProperty("delivered", std::to_string(delivered));
  }

  std::shared_ptr<hardware::simulated::Provider> provider;
  std::map<std::string, Counts> counts;
  std::uint64_t dropped = 0;
};

TEST_F(ConservationTest, EveryCapturedFrameIsDeliveredOrReported) {
  run("[device]\nid = a\nname = Plain\nmedia = video\nvideo format = 320x240 yuvs, rates 60\n"
      "[device]\nid = b\nname = Lossy\nmedia = video\nvideo format = 320x240 yuvs, rates 120\n"
      "video fault = lost frame, every 7\n"
      "[device]\nid = deck\nname = Deck\nmedia = muxed\nvideo format = 320x240 mp2t, rates 50\n"
      "audio format = 48000 Hz, 16-bit integer, stereo\nsound = tone 440 -20\n",
      {"a", "b", "deck"}, 0.6);

  EXPECT_GE(dropped, provider->device("b")->capturedVideo() / 7);
  EXPECT_GT(counts["Deck"].audio, 0U);
}

TEST_F(ConservationTest, EightCamerasAtOnceLoseNothingUnreported) {
  std::string rig;
  for (const char id : std::string("01234567")) {
    rig +=
        std::string("[device]\nid = ") + id + "\nname = Cam\nmedia = video\nvideo format = 1280x720 yuvs, rates 30\n";
  }
  // For a second, unless the environment asks for a longer run.
  const char* wanted = std::getenv("CAMERA_SECONDS");
  run(rig, {"0", "1", "2", "3", "4", "5", "6", "7"}, wanted ? std::atof(wanted) : 1);

  EXPECT_EQ(counts.size(), 8U);
}

TEST_F(ConservationTest, UnplugInTheMiddleLosesNothingUnreported) {
  provider = rigs::install(std::string(hardware::simulated::demoRigText()));
  Host host;
  Counts count;
  host.registerVideo("HD Webcam Video", Counts::onVideo, &count);
  host.registerAudio("HD Webcam Video", Counts::onAudio, &count);
  const auto camera = provider->device("webcam-hd");
  NSRunLoop::mainRunLoop().runForSeconds(0.4);

  provider->unplug("webcam-hd-microphone");
  NSRunLoop::mainRunLoop().runForSeconds(0.1);
  provider->unplug("webcam-hd");
  count.isRegistered = false;

  EXPECT_EQ(host.sources().size(), 5U);
  EXPECT_EQ(unclaimedFrames(), 0U);
  EXPECT_GT(count.video, 0U);
  EXPECT_EQ(camera->capturedVideo(), count.video + static_cast<std::uint64_t>(host.logged("Dropped a Frame!\n")));
}

}  // namespace

#include <AVFoundation/AVFoundation.h>
#include <gmock/gmock.h>
#include <lumora/zThread.h>
#include <simulated/DemoRig.h>
#include <simulated/RigParser.h>
#include <simulated/SimulatedProvider.h>

#include <atomic>
#include <cstdlib>
#include <map>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"

// Real-time rigs: what the devices captured is what arrived or was reported as dropped.

namespace {

using hardware::simulated::Provider;
using hardware::simulated::Rig;

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

  std::shared_ptr<Provider> install(const std::string& text) {
    auto parsed = hardware::simulated::parseRig(text, "test.rig");
    const auto* error = std::get_if<hardware::simulated::RigError>(&parsed);
    EXPECT_EQ(error, nullptr) << (error ? error->message() : "");
    auto provider = std::make_shared<Provider>(std::get<Rig>(std::move(parsed)));
    hardware::installSystemProvider(provider);
    return provider;
  }
};

TEST_F(ConservationTest, EveryCapturedFrameIsDeliveredOrReported) {
  const auto provider = install(R"(
[device]
id = a
name = Plain
media = video
video format = 320x240 yuvs, rates 60

[device]
id = b
name = Lossy
media = video
video format = 320x240 yuvs, rates 120
video fault = lost frame, every 7

[device]
id = deck
name = Deck
media = muxed
video format = 320x240 mp2t, rates 50
audio format = 48000 Hz, 16-bit integer, stereo
sound = tone 440 -20
)");
  Host host;
  std::map<std::string, Counts> counts;

  for (const auto& source : host.sources()) {
    host.registerVideo(source, Counts::onVideo, &counts[source]);
    if (host.has(source, "ProvidesAudio")) host.registerAudio(source, Counts::onAudio, &counts[source]);
  }
  NSRunLoop::mainRunLoop().runForSeconds(0.6);
  host.disconnect();

  const std::uint64_t captured = provider->device("a")->capturedVideo() + provider->device("b")->capturedVideo() +
                                 provider->device("deck")->capturedVideo();
  std::uint64_t delivered = 0;
  for (const auto& [source, count] : counts) delivered += count.video;
  const auto dropped = static_cast<std::uint64_t>(host.logged("Dropped a Frame!\n"));
  EXPECT_EQ(captured, delivered + dropped);
  EXPECT_GE(dropped, provider->device("b")->capturedVideo() / 7);
  EXPECT_GT(counts["Deck"].audio, 0U);
}

TEST_F(ConservationTest, UnplugInTheMiddleLosesNothingUnreported) {
  const auto provider = install(std::string(hardware::simulated::demoRigText()));
  Host host;
  Counts counts;
  host.registerVideo("HD Webcam Video", Counts::onVideo, &counts);
  host.registerAudio("HD Webcam Video", Counts::onAudio, &counts);
  const auto camera = provider->device("webcam-hd");
  NSRunLoop::mainRunLoop().runForSeconds(0.4);

  provider->unplug("webcam-hd-microphone");
  NSRunLoop::mainRunLoop().runForSeconds(0.1);
  provider->unplug("webcam-hd");
  counts.isRegistered = false;

  EXPECT_EQ(host.sources().size(), 5U);
  EXPECT_GT(counts.video, 0U);
  EXPECT_EQ(camera->capturedVideo(), counts.video + static_cast<std::uint64_t>(host.logged("Dropped a Frame!\n")));
}

TEST_F(ConservationTest, EightCamerasAtOnceLoseNothingUnreported) {
  std::string rig;
  for (int i = 0; i < 8; ++i) {
    rig +=
        "[device]\nid = " + std::to_string(i) + "\nname = Cam\nmedia = video\nvideo format = 1280x720 yuvs, rates 30\n";
  }
  const auto provider = install(rig);
  Host host;
  std::map<std::string, Counts> counts;
  for (const auto& source : host.sources()) host.registerVideo(source, Counts::onVideo, &counts[source]);
  // For a second, unless the environment asks for a longer run.
  const char* wanted = std::getenv("CAMERA_SECONDS");
  NSRunLoop::mainRunLoop().runForSeconds(wanted ? std::atof(wanted) : 1);
  host.disconnect();

  std::uint64_t captured = 0;
  std::uint64_t delivered = 0;
  for (int i = 0; i < 8; ++i) captured += provider->device(std::to_string(i))->capturedVideo();
  for (const auto& [source, count] : counts) delivered += count.video;
  EXPECT_EQ(counts.size(), 8U);
  EXPECT_EQ(captured, delivered + static_cast<std::uint64_t>(host.logged("Dropped a Frame!\n")));
  RecordProperty("captured", std::to_string(captured));
  RecordProperty("delivered", std::to_string(delivered));
}

}  // namespace

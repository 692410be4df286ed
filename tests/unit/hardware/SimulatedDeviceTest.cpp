#include "simulated/SimulatedDevice.h"

#include <gmock/gmock.h>

#include "simulated/SimulatedProvider.h"
#include "support/Rigs.h"
#include "support/Samples.h"
#include "support/SimulationScheduler.h"

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;

/// Writes down what it is given.
struct RecordingSink final : hardware::Sink {
  struct Frame {
    CMTime time;
    bool hasImage = false, isLost = false, isDrawn = true;
  };

  void videoFrameCaptured(const hardware::VideoFrame& frame) override {
    if (isOutOfMemory) throw std::bad_alloc();
    CVPixelBufferLockBaseAddress(picture.get(), 0);
    video.push_back({frame.presentationTime, frame.hasImage, false, frame.hasImage && frame.drawInto(picture.get())});
    CVPixelBufferUnlockBaseAddress(picture.get(), 0);
  }
  void videoFrameLost(CMTime time, CMTime) override { video.push_back({time, false, true}); }
  void audioChunkCaptured(const hardware::AudioChunk& chunk) override { rate = chunk.format->stream.mSampleRate; }
  void deviceFailed(std::string_view reason) override { failures.emplace_back(reason); }
  bool hasRoomForVideo() override { return true; }
  bool hasRoomForAudio() override { return true; }

  bool isOutOfMemory = false;
  double rate = 0;  ///< of the sound
  std::vector<Frame> video;
  std::vector<std::string> failures;
  const CFRef<CVPixelBufferRef> picture = samples::picture(160, 120);
};

class SimulatedDeviceTest : public testing::Test {
 protected:
  void plugIn(const std::string& text) {
    provider = std::make_unique<Provider>(rigs::parsed(text));
    device = provider->device("cam");
  }
  void runFor(double seconds) {
    scheduler.sleepUntil(scheduler.now() + static_cast<Nanoseconds>(seconds * NanosecondsPerSecond));
  }

  test::SimulationScheduler scheduler;
  std::unique_ptr<Provider> provider;
  std::shared_ptr<SimulatedDevice> device;
  RecordingSink sink;
};

TEST_F(SimulatedDeviceTest, FramesComeOnTimeAndALateLaneMakesUpForEveryOneThatWasDue) {
  plugIn(
      "[device]\nid = cam\nname = Camera\nmedia = video, audio\nvideo format = 160x120 2vuy, rates 25\n"
      "video format = 160x120 2vuy, rates 29.97, active\naudio format = 44100 Hz\naudio format = 48000 Hz, active\n");
  runFor(2.5);
  device->start(sink);
  runFor(10.0099);
  EXPECT_EQ(sink.rate, 48000);
  ASSERT_EQ(sink.video.size(), 300u);
  scheduler.stall(2 * NanosecondsPerSecond);
  runFor(0);

  ASSERT_EQ(sink.video.size(), 360u);
  for (int i = 0; i < 360; ++i) EXPECT_EQ(sink.video[static_cast<std::size_t>(i)].time.value, 75000 + 1001 * i);
}

TEST_F(SimulatedDeviceTest, ADeviceThatCannotGoOnSaysWhyOnceAndSendsNothingMeanwhile) {
  plugIn(
      "[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 160x120 2vuy, rates 25\n"
      "running failure = \"Loose, it seems\", at 0.05 s, for 0.07 s\n");
  device->start(sink);
  runFor(0.199);
  EXPECT_EQ(sink.failures, std::vector<std::string>{"Loose, it seems"});
  ASSERT_EQ(sink.video.size(), 4U);
  EXPECT_EQ(sink.video[2].time.value, 3600) << "its clock goes on";

  sink.isOutOfMemory = true;
  runFor(0.1);
  sink.isOutOfMemory = false;
  runFor(10);
  EXPECT_EQ(sink.video.size(), 4U) << "it stands still once there was no memory";
  device->stop();
  device->start(sink);
  runFor(0.039);
  EXPECT_EQ(sink.video.size(), 5U);
}

TEST_F(SimulatedDeviceTest, AnUnpluggedDeviceStopsThenLeavesTheListAndTheBusThenIsReported) {
  const auto epoch = scheduler.now();
  plugIn(
      "[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 160x120 2vuy, rates 25\n"
      "firewire unit = 0x22, dv\n"
      "[device]\nid = deck\nname = Deck\nmedia = muxed\nvideo format = 160x120 mp2t, rates 25\nplugged in = no\n"
      "[script]\nat 2.5 s = plug cam\nat 1 s = unplug cam\n");
  device->start(sink);
  std::vector<double> times;
  std::shared_ptr<Device> attached;
  provider->setEventHandler([&](DeviceEvent event, const std::shared_ptr<Device>& which) {
    times.push_back(static_cast<double>(scheduler.now() - epoch) / 1e9);
    runFor(1);
    attached = event == DeviceEvent::attached ? which : nullptr;
    EXPECT_EQ(provider->devices().size(), attached ? 1u : 0u);
    EXPECT_EQ(provider->fireWireBus().units->size(), attached ? 1u : 0u);
  });

  runFor(10);
  device->start(sink);
  runFor(10);

  EXPECT_THAT(times, testing::ElementsAre(1.0, 2.5));
  EXPECT_EQ(sink.video.size(), 25u);
  EXPECT_TRUE(attached && attached != device && !attached->openFailure());
  EXPECT_EQ(device->openFailure(), "\"Camera\" is not connected.");
  EXPECT_FALSE(provider->plug("cam") || provider->plug("ghost") || provider->unplug("deck"));
}

}  // namespace
}  // namespace hardware::simulated

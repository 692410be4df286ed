#include "simulated/SimulatedDevice.h"

#include <gmock/gmock.h>

#include <functional>
#include <thread>

#include "simulated/SimulatedProvider.h"
#include "support/MediaFiles.h"
#include "support/Rigs.h"
#include "support/SimulationScheduler.h"
#include "support/TemporaryFolder.h"

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;
using testing::ElementsAre;

/// Writes down what it is given, and can be told what to do then.
struct RecordingSink final : hardware::Sink {
  struct Sample {
    CMTime time;
    std::uint32_t bytes = 0;  ///< of sound
    std::int32_t width = 0;
    bool hasImage = false, isLost = false;
  };

  void videoFrameCaptured(const hardware::VideoFrame& frame) override {
    video.push_back({frame.presentationTime, 0, frame.width, frame.hasImage, false});
    order += 'v';
    if (videoRoom > 0) --videoRoom;
    if (onVideo) onVideo(frame);
  }
  void videoFrameLost(CMTime time, CMTime) override { video.push_back({time, 0, 0, false, true}); }
  void audioChunkCaptured(const hardware::AudioChunk& chunk) override {
    audio.push_back({chunk.presentationTime, chunk.buffers->mNumberBuffers * chunk.buffers->mBuffers->mDataByteSize});
    order += 'a';
  }
  bool hasRoomForVideo() override { return videoRoom != 0; }
  bool hasRoomForAudio() override { return true; }

  std::vector<Sample> video, audio;
  std::string order;
  int videoRoom = -1;  // negative: without end
  std::function<void(const hardware::VideoFrame&)> onVideo;
};

const std::string Camera =
    "[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 160x120 2vuy, rates 29.97\n"
    "video format = 320x240 2vuy, rates 10-50\nvideo format = 80x60 2vuy, rates 25, never delivers\n";
const std::string Deck =
    "[device]\nid = cam\nname = Deck\nmedia = muxed\nvideo format = 160x120 mp2t, rates 25\n"
    "audio format = 48000 Hz, 16-bit integer, stereo\naudio buffer = 960\n";
const std::string Desk =
    "[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 160x120 2vuy, rates 25\n"
    "firewire unit = 0x22, dv\n"
    "[device]\nid = deck\nname = Deck\nmedia = muxed\nvideo format = 160x120 mp2t, rates 25\nplugged in = no\n";

class SimulatedDeviceTest : public testing::Test {
 protected:
  void plugIn(const std::string& text) {
    provider = std::make_unique<Provider>(rigs::parsed(text));
    device = provider->device("cam");
  }
  void runFor(double seconds) {
    scheduler.sleepUntil(scheduler.now() + static_cast<Nanoseconds>(seconds * NanosecondsPerSecond));
  }

  /// The first stamps are `first` and multiples of `step` from there.
  static void expectSteps(const std::vector<RecordingSink::Sample>& samples, std::size_t count, std::int64_t first,
                          std::int64_t step) {
    ASSERT_GE(samples.size(), count);
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_EQ(samples[i].time.value, first + step * static_cast<std::int64_t>(i)) << i;
    }
  }

  test::SimulationScheduler scheduler;
  std::unique_ptr<Provider> provider;
  std::shared_ptr<SimulatedDevice> device;
  RecordingSink sink;
};

TEST_F(SimulatedDeviceTest, FramesComeOnTimeAndALateLaneMakesUpForEveryOneThatWasDue) {
  plugIn(Camera);
  runFor(2.5);
  device->start(sink);
  runFor(10.0099);
  ASSERT_EQ(sink.video.size(), 300u);
  scheduler.stall(2 * NanosecondsPerSecond);
  runFor(0);

  EXPECT_EQ(sink.video.size(), 360u);
  expectSteps(sink.video, 360, 75000, 1001);
}

TEST_F(SimulatedDeviceTest, SoundComesWhenItsBufferIsFullAndItsClockGoesOnInAnotherFormat) {
  plugIn(
      "[device]\nid = cam\nname = Microphone\nmedia = audio\naudio buffer = 480\n"
      "audio format = 48000 Hz, 32-bit float, stereo, planar\naudio format = 44100 Hz, 16-bit integer, mono\n");
  device->start(sink);
  runFor(0.0099);
  EXPECT_TRUE(sink.audio.empty());
  runFor(0.0902);
  expectSteps(sink.audio, 10, 0, 480);
  EXPECT_EQ(sink.audio[9].bytes, 480u * 8);

  sink.audio.clear();
  device->selectAudioFormat(1);
  runFor(1);

  expectSteps(sink.audio, 90, 4410, 480);
  EXPECT_TRUE(sink.audio[0].time.timescale == 44100 && sink.audio[0].bytes == 480u * 2);
}

TEST_F(SimulatedDeviceTest, PicturesAndSoundComeInTheOrderOfTimeAlsoWhenTheyWaitForTheConsumer) {
  const std::string order = "vavaavaavaavaa";  // 40 ms a frame, at its beginning; 20 ms a buffer, at its end
  plugIn(Deck);
  device->start(sink);
  runFor(0.199);
  EXPECT_EQ(sink.order, order);

  RecordingSink consumer;
  plugIn(Deck + "pacing = consumer\n");
  consumer.videoRoom = 3;
  device->start(consumer);
  runFor(1);
  consumer.videoRoom = 2;
  runFor(1);
  EXPECT_EQ(consumer.order, order.substr(0, 8)) << "sound ran ahead, or nobody had said that there is room";
  device->sinkHasRoom();
  runFor(1);
  EXPECT_EQ(consumer.order, order);
}

TEST_F(SimulatedDeviceTest, ASelectionTakesEffectAtTheNextFrameAndOneOfNothingNewHasNone) {
  plugIn(Camera);
  device->selectVideoFormat(2, kCMTimeInvalid);
  device->start(sink);
  runFor(0.999);
  EXPECT_TRUE(sink.video.empty()) << "a format that never delivers";
  for (int i = 0; i < 10; ++i) {
    device->selectVideoFormat(0, i % 2 ? kCMTimeInvalid : CMTimeMake(1001, 30000));
    device->selectVideoFormat(99, CMTimeMake(1, 10));
    device->selectAudioFormat(0);
    runFor(0.1);
  }
  device->selectVideoFormat(1, CMTimeMake(1, 60));  // faster than the format goes
  runFor(0.1);

  ASSERT_EQ(sink.video.size(), 35u);
  expectSteps(sink.video, 31, 30000, 1001);
  EXPECT_TRUE(sink.video[29].width == 160 && sink.video[30].width == 320);
  EXPECT_EQ(sink.video[31].time.value, 30000 + 30 * 1001 + 600);
}

TEST_F(SimulatedDeviceTest, StoppingOrLettingGoWithinACallOfTheSinkMakesItTheLast) {
  plugIn(Camera);
  for (const bool isLetGo : {false, true}) {
    RecordingSink each;
    each.onVideo = [&](const VideoFrame&) {
      if (!isLetGo) return device->stop();
      provider->unplug("cam");
      device.reset();
    };
    device->start(each);
    runFor(3);
    EXPECT_EQ(each.video.size(), 1u);
    EXPECT_EQ(runtime::liveLaneCount(), 0);
  }
}

TEST_F(SimulatedDeviceTest, FaultsStrikeWhenTheRigSaysSo) {
  // Of ten frames: lost, without an image, with an invalid time or another timescale, or as it should be.
  const std::pair<std::string, const char*> cases[] = {
      {"lost frame, at frame 0", "l........."},   {"lost frame, at frame 3", "...l......"},
      {"lost frame, every 4", "...l...l.."},      {"lost frame, at 0.45 s", ".....l...."},
      {"no image, at frame 3", "...n......"},     {"invalid time, every 3", "..i..i..i."},
      {"timescale 600, at 0.45 s", ".....ttttt"}, {"timescale 600, every 2", "..tt..tt.."},
  };
  for (const auto& [fault, expected] : cases) {
    RecordingSink faulty;
    plugIn("[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 16x16 2vuy, rates 10\nvideo fault = " +
           fault + "\n");
    const double begin = static_cast<double>(runtime::Scheduler::current().now()) / 1e9;
    device->start(faulty);
    runFor(0.95);

    std::string frames;
    for (const auto& [time, bytes, width, hasImage, isLost] : faulty.video) {
      const double expectedTime = begin + static_cast<double>(frames.size()) / 10;
      EXPECT_TRUE(!CMTIME_IS_VALID(time) || std::abs(CMTimeGetSeconds(time) - expectedTime) < 1.0 / 600) << fault;
      frames += isLost ? 'l' : !hasImage ? 'n' : !CMTIME_IS_VALID(time) ? 'i' : time.timescale == 600 ? 't' : '.';
    }
    EXPECT_EQ(frames, expected) << fault;
  }
}

TEST_F(SimulatedDeviceTest, AClipBeginsAgainAtEachStartAndMayEndOrBeGone) {
  TemporaryFolder folder;
  const std::string clip = folder.write("clip.y4m", smallClip(3));
  const std::string sound = folder.write("clip.wav", waveFile(waveFormat(1, 1, 8000, 16), std::string(2000, 'x')));
  const auto expectFrames = [&](std::size_t count) {
    RecordingSink each;
    device->start(each);
    runFor(0.25);
    device->stop();
    EXPECT_EQ(each.video.size(), count);
    EXPECT_TRUE(each.audio.size() == 2 && each.audio[1].bytes == 2000u - 1024u);
  };
  for (const std::string ending : {"", ", once"}) {
    plugIn("[device]\nid = cam\nname = Player\nmedia = muxed\nsound = media " + sound + ", once\npicture = media " +
           clip + ending + "\n");
    for (int run = 0; run < 2; ++run) expectFrames(ending.empty() ? 7 : 3);
  }
  EXPECT_EQ(device->openFailure(), std::nullopt);
  std::filesystem::remove(clip);
  EXPECT_THAT(device->openFailure().value(), testing::HasSubstr("clip.y4m: No such file"));
  expectFrames(0);
}

TEST_F(SimulatedDeviceTest, AnUnpluggedDeviceStopsThenLeavesTheListAndTheBusThenIsReported) {
  const auto epoch = scheduler.now();
  plugIn(Desk + "[script]\nat 2.5 s = plug cam\nat 1 s = unplug cam\n");
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

  EXPECT_THAT(times, ElementsAre(1.0, 2.5));
  EXPECT_EQ(sink.video.size(), 25u);
  EXPECT_TRUE(attached && attached != device && !attached->openFailure());
  EXPECT_EQ(device->openFailure(), "\"Camera\" is not connected.");
  EXPECT_FALSE(provider->plug("cam") || provider->plug("ghost") || provider->unplug("deck"));
}

// With threads: what a stop promises to several at once.
TEST(SimulatedDeviceThreadTest, AfterAStopNoCallIsUnderWayForAnyOfThoseWhoStopped) {
  Provider provider(rigs::parsed(Deck + "pacing = consumer\n"));
  const auto device = provider.device("cam");
  for (int round = 0; round < 50; ++round) {
    RecordingSink sink;
    runtime::Event begun;
    std::atomic<bool> isClosed = false;
    sink.onVideo = [&](const VideoFrame&) {
      EXPECT_FALSE(isClosed);
      begun.signal();
    };
    device->start(sink);
    begun.wait();
    const auto stop = [&] {
      device->stop();
      isClosed = true;
    };
    std::jthread other(stop);
    stop();
  }
  EXPECT_EQ(runtime::liveLaneCount(), 0);
}

}  // namespace
}  // namespace hardware::simulated

#include "simulated/SimulatedDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "MediaFiles.h"
#include "RecordingSink.h"
#include "VirtualScheduler.h"
#include "simulated/SimulatedProvider.h"
#include "simulated/TestPicture.h"

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;
using testing::HasSubstr;

constexpr Nanoseconds Second = NanosecondsPerSecond;

const std::string Camera =
    "[device]\nid = cam\nname = Camera\nmedia = video\n"
    "video format = 160x120 2vuy, rates 29.97\n"
    "video format = 320x240 2vuy, rates 10-50\n"
    "video format = 80x60 2vuy, rates 25, never delivers\n";
const std::string Deck =
    "[device]\nid = cam\nname = Deck\nmedia = muxed\nvideo format = 160x120 mp2t, rates 25\n"
    "audio format = 48000 Hz, 16-bit integer, stereo\naudio buffer = 960\n";

std::vector<std::int64_t> values(const std::vector<RecordingSink::Video>& video) {
  std::vector<std::int64_t> result;
  for (const auto& frame : video) result.push_back(frame.time.value);
  return result;
}

class SimulatedDeviceTest : public testing::Test {
 protected:
  void plugIn(const std::string& text, const std::string& fileName = "test.rig") {
    provider = std::make_unique<Provider>(makeRig(text, fileName));
    device = provider->device("cam");
    ASSERT_TRUE(device);
  }

  void runFor(double seconds) {
    scheduler.runUntil(scheduler.now() + static_cast<Nanoseconds>(seconds * static_cast<double>(Second)));
  }

  VirtualScheduler scheduler;
  std::unique_ptr<Provider> provider;
  std::shared_ptr<SimulatedDevice> device;
  RecordingSink sink;
};

TEST_F(SimulatedDeviceTest, FramesComeOnTimeWithStampsSinceTheProvidersBeginning) {
  plugIn(Camera);
  runFor(2.5);
  std::vector<Nanoseconds> times;
  sink.onVideo = [&](const VideoFrame&) { times.push_back(scheduler.now()); };
  const Nanoseconds start = scheduler.now();

  device->start(sink);
  runFor(10.0099);
  device->stop();

  ASSERT_EQ(sink.video.size(), 300u);
  for (std::size_t i = 0; i < 300; ++i) {
    EXPECT_EQ(sink.video[i].time.timescale, 30000);
    EXPECT_EQ(sink.video[i].time.value, 75000 + 1001 * static_cast<std::int64_t>(i));
    EXPECT_NEAR(static_cast<double>(times[i] - start), static_cast<double>(i) * 1001e9 / 30000, 1);
  }
  EXPECT_EQ(CMTimeCompare(sink.video[0].duration, CMTimeMake(1001, 30000)), 0);
  EXPECT_EQ(device->capturedVideo(), 300u);
}

TEST_F(SimulatedDeviceTest, ALateLaneMakesUpForEveryFrameThatWasDue) {
  plugIn(Camera);
  device->start(sink);
  runFor(1);
  const std::size_t before = sink.video.size();

  scheduler.stall(2 * Second);
  runFor(0);

  EXPECT_EQ(before, 30u);
  EXPECT_EQ(sink.video.size(), 90u);
  EXPECT_EQ(sink.video[89].time.value - sink.video[0].time.value, 89 * 1001);
}

TEST_F(SimulatedDeviceTest, SoundIsDeliveredWhenItsBufferIsFull) {
  plugIn(
      "[device]\nid = cam\nname = Microphone\nmedia = audio\nclock drift = 0 ppm\naudio buffer = 480\n"
      "audio format = 48000 Hz, 32-bit float, stereo, planar\naudio format = 44100 Hz, 16-bit integer, mono\n");
  device->start(sink);
  runFor(0.0099);
  EXPECT_TRUE(sink.audio.empty());

  runFor(0.0902);
  device->selectAudioFormat(1);
  runFor(1);

  ASSERT_GT(sink.audio.size(), 90u);
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(sink.audio[i].time.value, static_cast<std::int64_t>(480 * i));
    EXPECT_EQ(sink.audio[i].bytes, 480u * 8);
  }
  // The clock goes on in the new format's timescale.
  EXPECT_EQ(sink.audio[10].time.timescale, 44100);
  EXPECT_EQ(sink.audio[10].time.value, 4410);
  EXPECT_EQ(sink.audio[11].time.value, 4410 + 480);
  EXPECT_EQ(sink.audio[10].bytes, 480u * 2);
}

TEST_F(SimulatedDeviceTest, AConsumerPacedDeviceLosesNothingAndWaitsForRoom) {
  plugIn(Camera + "pacing = consumer\n");
  runFor(7);
  sink.videoRoom = 3;
  device->start(sink);
  scheduler.runItems(100);
  EXPECT_EQ(sink.video.size(), 3u);

  sink.videoRoom = 5;
  scheduler.runItems(100);
  EXPECT_EQ(sink.video.size(), 3u) << "nobody has said that there is room";
  device->sinkHasRoom();
  scheduler.runItems(100);

  EXPECT_THAT(values(sink.video), testing::ElementsAre(0, 1001, 2002, 3003, 4004, 5005, 6006, 7007));
}

TEST_F(SimulatedDeviceTest, PicturesAndSoundOfOneDeviceComeInTheOrderOfTime) {
  for (const std::string pacing : {"consumer", "real time"}) {
    RecordingSink each;
    plugIn(Deck + "pacing = " + pacing + "\n");
    device->start(each);
    if (pacing == "consumer") {
      scheduler.runItems(20);
    } else {
      runFor(0.2);
    }
    device->stop();

    // 40 ms a frame, at its beginning; 20 ms a buffer, at its end.
    EXPECT_EQ(each.order.substr(0, 13), "vavaavaavaava") << pacing;
  }
}

TEST_F(SimulatedDeviceTest, ASelectionTakesEffectAtTheNextFrame) {
  plugIn(Camera);
  device->start(sink);
  runFor(0.99);
  ASSERT_EQ(sink.video.size(), 30u);

  device->selectVideoFormat(1, CMTimeMake(1, 25));
  runFor(0.1);

  ASSERT_EQ(sink.video.size(), 33u);
  EXPECT_EQ(sink.video[29].width, 160);
  EXPECT_EQ(sink.video[30].width, 320);
  EXPECT_EQ(sink.video[30].time.value, 30 * 1001);
  EXPECT_EQ(sink.video[31].time.value, 30 * 1001 + 1200);
}

TEST_F(SimulatedDeviceTest, SelectingWhatIsSelectedOrDoesNotExistChangesNothing) {
  plugIn(Camera);
  device->start(sink);

  for (int i = 0; i < 50; ++i) {
    device->selectVideoFormat(0, i % 2 ? kCMTimeInvalid : CMTimeMake(1001, 30000));
    device->selectVideoFormat(99, CMTimeMake(1, 10));
    device->selectAudioFormat(0);
    runFor(0.05);
  }

  ASSERT_GT(sink.video.size(), 70u);
  for (std::size_t i = 0; i < sink.video.size(); ++i) {
    EXPECT_EQ(sink.video[i].time.value, 1001 * static_cast<std::int64_t>(i));
  }
}

TEST_F(SimulatedDeviceTest, AFormatThatNeverDeliversIsSilentUntilAnotherIsSelected) {
  for (const std::string pacing : {"real time", "consumer"}) {
    RecordingSink each;
    plugIn(Camera + "pacing = " + pacing + "\n");
    device->selectVideoFormat(2, kCMTimeInvalid);
    device->start(each);
    each.videoRoom = 2;
    if (pacing == "consumer") {
      scheduler.runItems(10);
    } else {
      runFor(3);
    }
    EXPECT_TRUE(each.video.empty()) << pacing;
    EXPECT_EQ(device->capturedVideo(), 0u);

    device->selectVideoFormat(0, kCMTimeInvalid);
    scheduler.runItems(10);

    EXPECT_FALSE(each.video.empty()) << pacing;
    device->stop();
  }
}

TEST_F(SimulatedDeviceTest, StoppingFromACallOfTheSinkMakesItTheLast) {
  plugIn(Camera);
  sink.onVideo = [&](const VideoFrame&) { device->stop(); };
  device->start(sink);
  runFor(3);
  EXPECT_EQ(sink.video.size(), 1u);
  EXPECT_EQ(runtime::liveLaneCount(), 0);

  sink.onVideo = nullptr;
  device->start(sink);
  runFor(0.1);

  EXPECT_EQ(sink.video.size(), 4u);
}

TEST_F(SimulatedDeviceTest, ARunBegunWithinACallOfTheOldOneStartsAfterIt) {
  plugIn(Camera);
  RecordingSink second;
  std::vector<std::uint8_t> pixels;
  sink.onVideo = [&](const VideoFrame& frame) {
    if (sink.video.size() < 3) return;
    device->stop();
    device->start(second);
    EXPECT_TRUE(second.video.empty());
    CVPixelBufferRef buffer = nullptr;
    CVPixelBufferCreate(nullptr, 160, 120, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer);
    CVPixelBufferLockBaseAddress(buffer, 0);
    frame.drawInto(buffer);  // still the old run's picture
    EXPECT_EQ(readFrameNumber(static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(buffer)),
                              CVPixelBufferGetBytesPerRow(buffer), 160, 120),
              2u);
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    CVPixelBufferRelease(buffer);
  };

  device->start(sink);
  runFor(1);

  EXPECT_EQ(sink.video.size(), 3u);
  EXPECT_GT(second.video.size(), 20u);
}

TEST_F(SimulatedDeviceTest, TheLastHolderMayLetGoOfADeviceWithinItsCall) {
  plugIn(Camera);
  sink.onVideo = [&](const VideoFrame&) {
    provider->unplug("cam");
    device.reset();
  };
  device->start(sink);

  runFor(1);

  EXPECT_EQ(sink.video.size(), 1u);
  EXPECT_EQ(runtime::liveLaneCount(), 0);
}

TEST_F(SimulatedDeviceTest, FaultsReachTheSink) {
  plugIn(Camera +
         "video fault = lost frame, at frame 2\nvideo fault = no image, at frame 3\n"
         "video fault = invalid time, at frame 4\nvideo fault = timescale 600, at frame 6\n");
  device->start(sink);
  runFor(0.25);

  ASSERT_EQ(sink.video.size(), 8u);
  EXPECT_TRUE(sink.video[2].isLost);
  EXPECT_EQ(sink.video[2].time.value, 2002);
  EXPECT_TRUE(!sink.video[3].hasImage && !sink.video[3].isLost);
  EXPECT_FALSE(CMTIME_IS_VALID(sink.video[4].time));
  EXPECT_EQ(sink.video[5].time.value, 5005);
  EXPECT_EQ(sink.video[6].time.timescale, 600);
  EXPECT_EQ(device->capturedVideo(), 8u);
}

TEST_F(SimulatedDeviceTest, AClipBeginsAnewAtEachStartAndMayEnd) {
  MediaFolder folder;
  folder.write("clip.y4m", smallClip(3));
  folder.write("clip.wav", waveFile(chunk("fmt ", waveFormat(1, 1, 8000, 16)) + chunk("data", std::string(2000, 'x'))));
  const std::string text = "[device]\nid = cam\nname = Player\nmedia = muxed\nsound = media clip.wav, once\n";
  struct Case {
    const char* picture;
    std::vector<int> frames;
  };
  const Case cases[] = {{"picture = media clip.y4m, once\n", {0, 1, 2}},
                        {"picture = media clip.y4m\n", {0, 1, 2, 0, 1, 2, 0}}};
  for (const Case& each : cases) {
    plugIn(text + each.picture, folder.pathOf("test.rig"));
    CVPixelBufferRef buffer = nullptr;
    CVPixelBufferCreate(nullptr, 4, 2, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer);
    CVPixelBufferLockBaseAddress(buffer, 0);
    for (int run = 0; run < 2; ++run) {
      RecordingSink player;
      std::vector<int> seen;
      player.onVideo = [&](const VideoFrame& frame) {
        frame.drawInto(buffer);
        seen.push_back(*static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(buffer)));
      };
      device->start(player);
      runFor(0.25);
      device->stop();

      EXPECT_EQ(seen, each.frames);
      ASSERT_EQ(player.audio.size(), 2u);
      EXPECT_EQ(player.audio[1].frameCount, 1000u - 512u);
    }
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    CVPixelBufferRelease(buffer);
  }
}

TEST_F(SimulatedDeviceTest, ADeviceSaysWhyItCannotBeOpened) {
  MediaFolder folder;
  const std::string clip = folder.write("clip.y4m", smallClip(3));
  plugIn(Camera + "open failure = It is in use.\nconfiguration failure = It is locked.\n");
  EXPECT_EQ(device->openFailure(), "It is in use.");
  EXPECT_EQ(device->configurationFailure(), "It is locked.");

  plugIn("[device]\nid = cam\nname = Player\nmedia = video\npicture = media clip.y4m\n", folder.pathOf("test.rig"));
  EXPECT_EQ(device->openFailure(), std::nullopt);
  std::filesystem::remove(clip);
  EXPECT_THAT(device->openFailure().value(), HasSubstr("clip.y4m: No such file"));
  device->start(sink);
  runFor(1);
  EXPECT_TRUE(sink.video.empty());
}

// With threads: what a stop promises to several at once.
TEST(SimulatedDeviceThreadTest, AfterAStopNoCallIsUnderWayForAnyOfThoseWhoStopped) {
  Provider provider(makeRig(Deck + "pacing = consumer\n"));
  const auto device = provider.device("cam");
  for (int round = 0; round < 50; ++round) {
    RecordingSink sink;
    runtime::Event begun;
    std::atomic<bool> isClosed = false;
    sink.onVideo = [&](const VideoFrame&) {
      EXPECT_FALSE(isClosed);
      begun.signal();
      if (round % 3 == 0 && sink.video.size() == 3) device->stop();
      if (round % 5 == 0 && sink.video.size() == 3) device->start(sink);
    };
    device->start(sink);
    begun.wait();

    const auto stop = [&] {
      device->sinkHasRoom();
      device->selectVideoFormat(0, kCMTimeInvalid);
      device->stop();
      isClosed = true;
    };
    std::thread other(stop);
    stop();
    other.join();
  }
  EXPECT_EQ(runtime::liveLaneCount(), 0);
}

}  // namespace
}  // namespace hardware::simulated

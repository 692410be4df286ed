#include "AVDevice.h"

#include <Foundation/NSValue.h>
#include <gmock/gmock.h>

#include <atomic>
#include <limits>
#include <thread>

#include "SourceTest.h"
#include "support/Gate.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A source made by detection, and what its callbacks received.
class DeviceTest : public SourceTest {
 protected:
  /// Starts without the pause for the automatic choice of a format.
  void start() { source().restartDevice(); }
  void registerBoth() {
    source().setVideoDataArriveCallback(
        [](void* context, BRV_VideoBuffer* buffer) {
          auto* test = static_cast<DeviceTest*>(context);
          test->videoTimes.push_back(buffer->timeStamp);
          if (test->duringVideo) test->duringVideo();
        },
        this);
    source().setAudioDataArrivedCallback(
        [](void* context, BRV_AudioBuffer* buffer) {
          auto* test = static_cast<DeviceTest*>(context);
          const auto* samples = static_cast<const std::int16_t*>(buffer->data);
          test->audioTimes.push_back(buffer->timeStamp);
          test->sounds.emplace_back(samples, samples + buffer->dataLength / 2);
        },
        this);
  }
  void captureSound(fake::Device& device, CMTime time) {
    const std::vector<std::int16_t> silence(2048);
    device.captureSound(time, silence.data(), 1024);
  }

  std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
  std::shared_ptr<fake::Device> linkedCamera = fake::camera("Cam", "c", {"m"});
  std::shared_ptr<fake::Device> microphone = fake::microphone("Mic", "m", {"c", "d"});
  // Written on the capture queues, read once the source has stopped.
  std::vector<std::int64_t> videoTimes;
  std::vector<std::int64_t> audioTimes;
  std::vector<std::vector<std::int16_t>> sounds;
  std::function<void()> duringVideo;
};

TEST_F(DeviceTest, SamplesOfBothSidesReachTheirCallbacks) {
  detect({linkedCamera, microphone});
  registerBoth();

  start();
  EXPECT_TRUE(source().isRunning());
  for (int i = 0; i < 3; ++i) {
    captureSound(*microphone, CMTimeMake(i * 1024, 44100));
    linkedCamera->captureFrame(CMTimeMake(i, 30));
    source().stopDevice();  // lets what is on its way arrive
    start();
  }
  source().stopDevice();
  EXPECT_FALSE(source().isRunning());
  linkedCamera->captureFrame(CMTimeMake(9, 30));

  EXPECT_THAT(videoTimes, ElementsAre(0, 1, 2));
  EXPECT_THAT(audioTimes, ElementsAre(0, 1024, 2048));
}

TEST_F(DeviceTest, SoundFromTheEndsOfTimeIsDelivered) {
  // One that is converted, so that times are reckoned with.
  microphone->described.initialAudioFormat = microphone->selectedAudioFormat = 1;
  detect({microphone});
  registerBoth();
  const std::vector<float> silence(2 * 1024);

  for (const std::int64_t value :
       {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
    for (const std::int32_t timescale : {1, std::numeric_limits<std::int32_t>::max()}) {
      start();
      for (int i = 0; i < 3; ++i) microphone->captureSound(CMTimeMake(value, timescale), silence.data(), 1024);
      source().stopDevice();
      EXPECT_EQ(audioTimes.front(), value);
      audioTimes.clear();
    }
  }
}

TEST_F(DeviceTest, AMuxedDeviceBringsItsSoundInTheTimescaleOfItsPicturesUntilAMicrophoneTakesOver) {
  auto deck = fake::camcorder("Deck", "d");
  auto lone = fake::microphone("Mic", "m");
  detect({deck});
  registerBoth();
  start();
  captureSound(*deck, CMTimeMake(0, 48000));
  source().stopDevice();
  EXPECT_THAT(audioTimes, IsEmpty()) << "no timescale yet";

  start();
  deck->captureFrame(CMTimeMake(600, 600));
  source().stopDevice();
  start();
  captureSound(*deck, CMTimeMake(48000, 48000));
  source().stopDevice();
  start();
  provider->plug(lone);
  const auto devices = AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio);
  manager->_RemoveDevice(manager->getDeviceWithName("Mic Audio"));
  source().setAudioTrackDevice(devices.front().get());
  captureSound(*lone, CMTimeMake(7, 44100));
  source().stopDevice();

  EXPECT_EQ(source().getAudioDeviceID(), "m");
  EXPECT_THAT(audioTimes, ElementsAre(600, 7));
}

TEST_F(DeviceTest, ACamcorderThatJoinsItsMicrophoneLeavesTheSoundToIt) {
  auto deck = fake::camcorder("Deck", "d", {"m"});
  detect({microphone});
  registerBoth();
  start();

  provider->plug(deck);
  registerBoth();
  for (int run = 0; run < 2; ++run) {  // the second time with the outputs connected anew
    captureSound(*microphone, CMTimeMake(run, 44100));
    captureSound(*deck, CMTimeMake(100, 48000));
    deck->captureFrame(CMTimeMake(run, 30));
    source().stopDevice();
    start();
  }
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(0, 1));
  EXPECT_THAT(videoTimes, ElementsAre(0, 1));
  EXPECT_EQ(source().getAudioDeviceID(), "m");
  provider->unplug(deck);
  provider->unplug(microphone);
  EXPECT_EQ(manager->getDeviceCount(), 0);
}

TEST_F(DeviceTest, AMicrophoneThatJoinsARunningCameraIsHeardAtOnceAlsoWhenItComesBack) {
  detect({linkedCamera});
  start();
  provider->plug(microphone);
  registerBoth();
  captureSound(*microphone, CMTimeMake(5, 44100));
  source().stopDevice();
  start();

  provider->unplug(microphone);
  auto sameMicrophone = fake::microphone("Mic", "m", {"c"});
  provider->plug(sameMicrophone);
  captureSound(*sameMicrophone, CMTimeMake(6, 44100));
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(5, 6));
  EXPECT_EQ(manager->getDeviceCount(), 1);
}

TEST_F(DeviceTest, AGapInTheTimeStampsOrAnotherFormatBeginsANewStreamOfSound) {
  detect({microphone});
  registerBoth();
  start();
  const std::vector<float> loud(960, 0.5F), silent(960, 0.0F);
  const std::vector<std::int16_t> integers(960, 8192);

  microphone->selectedAudioFormat = 1;
  microphone->captureSound(CMTimeMake(0, 48000), loud.data(), 480);
  microphone->captureSound(CMTimeMake(48000, 48000), silent.data(), 480);
  microphone->selectedAudioFormat = 0;
  microphone->captureSound(CMTimeMake(44541, 44100), integers.data(), 480);
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(0, 48000, 44541));
  ASSERT_EQ(sounds.size(), 3U);
  EXPECT_EQ(sounds[1], std::vector<std::int16_t>(sounds[1].size())) << "nothing of the old stream is left";
  EXPECT_EQ(sounds[2], integers);
}

TEST_F(DeviceTest, AStopDoesNotWaitForTheMainThreadToHearOfTheStart) {
  detect({camera});
  std::thread([&] {
    source().restartDevice();
    EXPECT_FALSE(source().isRunning()) << "the main thread has not run its loop";
    source().stopDevice();
  }).join();
  EXPECT_FALSE(camera->isRunning());

  source().restartDevice();
  NSRunLoop::mainRunLoop().runUntilIdle();  // the late notifications
  EXPECT_TRUE(source().isRunning());
}

TEST_F(DeviceTest, AfterUnregistrationTheFormerCallbackIsNotRunningAndDoesNotCome) {
  detect({camera});
  registerBoth();
  start();
  Gate gate;
  std::atomic<bool> unregistered{false};
  duringVideo = [&] {
    gate.pass();
    EXPECT_FALSE(unregistered);
  };
  camera->captureFrame(CMTimeMake(1, 30));
  gate.waitUntilEntered();

  std::thread host([&] {
    source().setVideoDataArriveCallback(nullptr, nullptr);
    unregistered = true;
  });
  camera->captureFrame(CMTimeMake(2, 30));
  gate.open();
  host.join();
  const auto seen = videoTimes.size();
  camera->captureFrame(CMTimeMake(3, 30));
  source().stopDevice();

  EXPECT_EQ(videoTimes.size(), seen);
}

TEST_F(DeviceTest, RemovalWaitsForTheHostsCallback) {
  detect({camera});
  registerBoth();
  start();
  Gate gate;
  duringVideo = [&] {
    gate.pass();
    // What a host may ask from its callback, removal or not.
    EXPECT_TRUE(manager->useDeviceWithName("Cam Video"));
    EXPECT_EQ(manager->getDeviceCount(), 1);
  };
  camera->captureFrame(CMTimeMake(1, 30));
  gate.waitUntilEntered();
  std::thread host([&] { gate.open(); });

  provider->unplug(camera);
  host.join();

  EXPECT_EQ(manager->getDeviceCount(), 0);
  EXPECT_THAT(videoTimes, ElementsAre(1));
}

TEST_F(DeviceTest, ASourceInUseIsDeletedOnlyWhenTheUseEnds) {
  detect({camera});
  Gate gate;
  std::atomic<bool> isEnding{false};
  std::thread host([&] {
    const auto first = manager->useDeviceWithName("Cam Video");
    const auto use = manager->useDeviceWithName("Cam Video");
    gate.pass();
    EXPECT_EQ(use->getVideoDeviceID(), "c");
    EXPECT_FALSE(manager->useDeviceWithName("nobody"));
    isEnding = true;
  });
  gate.waitUntilEntered();
  std::thread ending([&] { gate.open(); });

  manager->_RemoveDevice(&source());

  EXPECT_TRUE(isEnding);
  EXPECT_EQ(manager->getDeviceCount(), 0);
  host.join();
  ending.join();
  manager->detectDeviceConnect();
  const auto ownUse = manager->useDeviceWithName("Cam Video");
  provider->unplug(camera);
  EXPECT_EQ(manager->getDeviceCount(), 0);
  EXPECT_EQ(ownUse->getVideoDeviceID(), "c") << "removed within a use of the same thread";
}

TEST_F(DeviceTest, ADeviceWithoutMediaReportsItsErrorOnce) {
  detect({});
  provider->plug(fake::device("Thing", "t"));
  const auto device = AVCaptureDevice::devices().front();
  AV::Device unusable(manager, device.get());

  std::string text = "before";
  EXPECT_EQ(unusable.getDeviceName(), "Untitled Device");
  EXPECT_TRUE(unusable.getErrorString(text));
  EXPECT_THAT(text, testing::HasSubstr("1000"));
  EXPECT_FALSE(unusable.getErrorString(text));
  EXPECT_EQ(unusable.getDeviceFrameDuration(), -1);
  EXPECT_EQ(unusable.getDeviceTimescale(), 0);
}

TEST_F(DeviceTest, TheSourceChangeCallbackNeedsAContext) {
  detect({camera});
  std::vector<int> codes;
  const auto record = [](void* context, int code) { static_cast<std::vector<int>*>(context)->push_back(code); };

  source().setSourceChangeCallback(record, &codes);
  source().notifySourceChange(42);
  source().setSourceChangeCallback(record, nullptr);
  source().notifySourceChange(43);

  EXPECT_THAT(codes, ElementsAre(42));
}

TEST_F(DeviceTest, AVideoOutputCanBeTakenOutAndPutBack) {
  detect({camera});
  registerBoth();
  start();

  source().disconnectOutput();
  camera->captureFrame(CMTimeMake(1, 30));
  EXPECT_FALSE(camera->isRunning());
  source().reconnectOutput();
  camera->captureFrame(CMTimeMake(2, 30));
  source().stopDevice();

  EXPECT_THAT(videoTimes, ElementsAre(2));
}

}  // namespace

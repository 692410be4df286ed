#include "AVDevice.h"

#include <Foundation/NSValue.h>
#include <gmock/gmock.h>

#include <future>
#include <thread>

#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A source made by detection, and what its callbacks received.
class DeviceTest : public FrameworkTest {
 protected:
  ~DeviceTest() override { delete manager; }

  void detect(std::vector<std::shared_ptr<fake::Device>> devices) {
    provider = fake::install(std::move(devices));
    manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
  }
  AV::Device& source() { return *manager->getDeviceWithIndex(0); }

  /// Starts without the pause for the automatic choice of a format.
  void start() { source().restartDevice(); }

  static void countVideo(void* context, BRV_VideoBuffer* buffer) {
    auto* test = static_cast<DeviceTest*>(context);
    test->videoTimes.push_back(buffer->timeStamp);
    if (test->duringVideo) test->duringVideo();
  }
  static void countAudio(void* context, BRV_AudioBuffer* buffer) {
    static_cast<DeviceTest*>(context)->audioTimes.push_back(buffer->timeStamp);
  }
  void registerBoth() {
    source().setVideoDataArriveCallback(countVideo, this);
    source().setAudioDataArrivedCallback(countAudio, this);
  }

  std::vector<std::int16_t> silence = std::vector<std::int16_t>(4096);
  std::shared_ptr<fake::Provider> provider;
  AV::DeviceManager* manager = nullptr;
  // Written on the capture queues, read once the source has stopped.
  std::vector<std::int64_t> videoTimes;
  std::vector<std::int64_t> audioTimes;
  std::function<void()> duringVideo;
};

TEST_F(DeviceTest, SamplesOfBothSidesReachTheirCallbacks) {
  auto camera = fake::camera("Cam", "c", {"m"});
  auto microphone = fake::microphone("Mic", "m", {"c"});
  detect({camera, microphone});
  registerBoth();

  start();
  EXPECT_TRUE(source().isRunning());
  for (int i = 0; i < 3; ++i) {
    microphone->captureSound(CMTimeMake(i * 1024, 44100), silence.data(), 1024);
    camera->captureFrame(CMTimeMake(i, 30));
    source().stopDevice();  // lets what is on its way arrive
    start();
  }
  source().stopDevice();
  EXPECT_FALSE(source().isRunning());
  camera->captureFrame(CMTimeMake(9, 30));

  EXPECT_THAT(videoTimes, ElementsAre(0, 1, 2));
  EXPECT_THAT(audioTimes, ElementsAre(0, 1024, 2048));
}

TEST_F(DeviceTest, AMuxedDeviceBringsItsSoundInTheTimescaleOfItsPictures) {
  auto deck = fake::camcorder("Deck", "d");
  detect({deck});
  EXPECT_TRUE(source().hasAudioStream());
  registerBoth();
  start();

  deck->captureSound(CMTimeMake(0, 48000), silence.data(), 1024);
  source().stopDevice();
  EXPECT_THAT(audioTimes, IsEmpty()) << "no timescale yet";
  start();
  deck->captureFrame(CMTimeMake(600, 600));
  source().stopDevice();
  start();
  deck->captureSound(CMTimeMake(48000, 48000), silence.data(), 1024);
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(600));
}

TEST_F(DeviceTest, AMicrophonePairedWithARunningMuxedSourceTakesOverItsSound) {
  auto deck = fake::camcorder("Deck", "d");
  auto microphone = fake::microphone("Mic", "m");
  detect({deck});
  registerBoth();
  start();
  provider->plug(microphone);
  const auto devices = AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio);
  manager->_RemoveDevice(manager->getDeviceWithName("Mic Audio"));

  source().setAudioTrackDevice(devices.front().get());
  microphone->captureSound(CMTimeMake(7, 44100), silence.data(), 1024);
  source().stopDevice();

  EXPECT_EQ(source().getAudioDeviceID(), "m");
  EXPECT_THAT(audioTimes, ElementsAre(7));
}

TEST_F(DeviceTest, ACamcorderThatJoinsItsMicrophoneLeavesTheSoundToIt) {
  hardware::DeviceDescription description = fake::camcorder("Deck", "d")->description();
  description.linkedDevices = {"m"};
  auto deck = std::make_shared<fake::Device>(description);
  auto microphone = fake::microphone("Mic", "m", {"d"});
  detect({microphone});
  source().setAudioDataArrivedCallback(countAudio, this);
  start();

  provider->plug(deck);
  source().setVideoDataArriveCallback(countVideo, this);
  for (int run = 0; run < 2; ++run) {  // the second time with the outputs connected anew
    microphone->captureSound(CMTimeMake(run, 44100), silence.data(), 1024);
    deck->captureSound(CMTimeMake(100, 48000), silence.data(), 1024);
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

TEST_F(DeviceTest, AStopDoesNotWaitForTheMainThreadToHearOfTheStart) {
  auto camera = fake::camera("Cam", "c");
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

TEST_F(DeviceTest, ASourceRemovedWithinItsOwnUseIsDeletedWhenThatEnds) {
  auto camera = fake::camera("Cam", "c");
  detect({camera});
  {
    const auto use = manager->useDeviceWithName("Cam Video");
    provider->unplug(camera);
    EXPECT_EQ(manager->getDeviceCount(), 0);
    EXPECT_EQ(use->getVideoDeviceID(), "c");
  }
}

TEST_F(DeviceTest, AMicrophonePairedWithARunningCameraIsHeardAtOnce) {
  auto camera = fake::camera("Cam", "c", {"m"});
  auto microphone = fake::microphone("Mic", "m", {"c"});
  detect({camera});
  start();

  provider->plug(microphone);
  registerBoth();
  microphone->captureSound(CMTimeMake(5, 44100), silence.data(), 1024);
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(5));
}

TEST_F(DeviceTest, AnUnpluggedSideDeliversAgainWhenItIsBack) {
  auto camera = fake::camera("Cam", "c", {"m"});
  auto microphone = fake::microphone("Mic", "m", {"c"});
  detect({camera, microphone});
  registerBoth();
  start();

  provider->unplug(microphone);
  auto sameMicrophone = fake::microphone("Mic", "m", {"c"});
  provider->plug(sameMicrophone);
  sameMicrophone->captureSound(CMTimeMake(3, 44100), silence.data(), 1024);
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(3));
  EXPECT_EQ(manager->getDeviceCount(), 1);
}

TEST_F(DeviceTest, AfterUnregistrationTheFormerCallbackIsNotRunningAndDoesNotCome) {
  auto camera = fake::camera("Cam", "c");
  detect({camera});
  registerBoth();
  start();
  std::promise<void> entered;
  std::promise<void> mayReturn;
  std::atomic<bool> unregistered{false};
  duringVideo = [&] {
    if (videoTimes.size() == 1) {
      entered.set_value();
      mayReturn.get_future().wait();
    }
    EXPECT_FALSE(unregistered);
  };
  camera->captureFrame(CMTimeMake(1, 30));
  entered.get_future().wait();

  std::thread host([&] {
    source().setVideoDataArriveCallback(nullptr, nullptr);
    unregistered = true;
  });
  camera->captureFrame(CMTimeMake(2, 30));
  mayReturn.set_value();
  host.join();
  const auto seen = videoTimes.size();
  camera->captureFrame(CMTimeMake(3, 30));
  source().stopDevice();

  EXPECT_EQ(videoTimes.size(), seen);
}

TEST_F(DeviceTest, RemovalWaitsForTheHostsCallbackAndForWhoeverUsesTheSource) {
  auto camera = fake::camera("Cam", "c");
  detect({camera});
  registerBoth();
  start();
  std::promise<void> entered;
  std::promise<void> mayReturn;
  duringVideo = [&] {
    entered.set_value();
    mayReturn.get_future().wait();
    // What a host may ask from its callback, removal or not.
    EXPECT_TRUE(source().hasVideoStream());
    EXPECT_EQ(manager->getDeviceCount(), 1);
  };
  camera->captureFrame(CMTimeMake(1, 30));
  entered.get_future().wait();
  std::thread host([&] { mayReturn.set_value(); });

  provider->unplug(camera);
  host.join();

  EXPECT_EQ(manager->getDeviceCount(), 0);
  EXPECT_THAT(videoTimes, ElementsAre(1));
}

TEST_F(DeviceTest, ASourceInUseIsDeletedOnlyWhenTheUseEnds) {
  detect({fake::camera("Cam", "c")});
  std::promise<void> used;
  std::promise<void> mayEnd;
  std::thread host([&] {
    const auto use = manager->useDeviceWithName("Cam Video");
    used.set_value();
    mayEnd.get_future().wait();
    EXPECT_EQ(use->getVideoDeviceID(), "c");
    EXPECT_FALSE(manager->useDeviceWithName("nobody"));
  });
  used.get_future().wait();
  std::thread ending([&] { mayEnd.set_value(); });

  manager->_RemoveDevice(&source());

  EXPECT_EQ(manager->getDeviceCount(), 0);
  host.join();
  ending.join();
}

TEST_F(DeviceTest, ADeviceWithoutMediaReportsItsErrorOnce) {
  detect({});
  hardware::DeviceDescription description;
  description.name = "Thing";
  description.uniqueID = "t";
  provider->plug(std::make_shared<fake::Device>(description));
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
  detect({fake::camera("Cam", "c")});
  static std::vector<int> codes;
  codes.clear();
  const auto record = [](void*, int code) { codes.push_back(code); };

  source().setSourceChangeCallback(record, this);
  source().notifySourceChange(42);
  source().setSourceChangeCallback(record, nullptr);
  source().notifySourceChange(43);

  EXPECT_THAT(codes, ElementsAre(42));
}

TEST_F(DeviceTest, AStoppedVideoOutputCanBeTakenOutAndPutBack) {
  auto camera = fake::camera("Cam", "c");
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

TEST(AudioSettingsTest, SoundIsAskedForInTheHostsFormat) {
  const auto settings = AV::GetAudioSettings();
  const auto value = [&](CFStringRef key) {
    return dynamic_cast<NSNumber*>(settings->objectForKey(key))->longLongValue();
  };

  EXPECT_EQ(settings->count(), 6U);
  EXPECT_EQ(value(AVFormatIDKey), 0x6C70636D);
  EXPECT_EQ(value(AVSampleRateKey), 44100);
  EXPECT_EQ(value(AVLinearPCMBitDepthKey), 16);
  EXPECT_EQ(value(AVLinearPCMIsFloatKey), 0);
  EXPECT_EQ(value(AVLinearPCMIsNonInterleaved), 0);
  EXPECT_EQ(value(AVNumberOfChannelsKey), 2);
}

}  // namespace

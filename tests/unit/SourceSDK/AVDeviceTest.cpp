#include "AVDevice.h"

#include <gmock/gmock.h>
#include <lumora/zThread.h>

#include <array>
#include <system_error>

#include "BRV_AVCapture.h"
#include "SourceTest.h"
#include "support/LogCapture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A source made by detection, and what its callbacks received.
class DeviceTest : public SourceTest {
 protected:
  /// Starts without the pause for the automatic choice of a format.
  void start() { source().restartDevice(); }
  /// Lets what is on its way arrive, and starts the source anew.
  void flush() {
    source().stopDevice();
    start();
  }
  /// Detects one device or two, and starts their source with both callbacks registered.
  void run(Devices devices) {
    detect(std::move(devices));
    registerBoth();
    start();
  }
  void registerBoth() {
    source().setVideoDataArriveCallback([](void*, BRV_VideoBuffer*) {}, this);
    source().setAudioDataArrivedCallback(
        [](void* context, BRV_AudioBuffer* buffer) {
          static_cast<DeviceTest*>(context)->audioTimes.push_back(buffer->timeStamp);
        },
        this);
  }
  static void captureSound(fake::Device& device, CMTime time) {
    const std::vector<float> silence(2 * 1024);
    device.captureSound(time, silence.data(), 1024);
  }

  std::shared_ptr<fake::Device> microphone = fake::microphone("Mic", "m", {"c", "d"});
  std::vector<std::int64_t> audioTimes;  ///< written on a capture queue, read once the source has stopped
};

TEST_F(DeviceTest, AMuxedDeviceBringsItsSoundInTheTimescaleOfItsPicturesUntilAMicrophoneTakesOver) {
  auto deck = fake::camcorder("Deck", "d");
  auto lone = fake::microphone("Mic", "m");
  run({deck});
  const LogCapture log;
  for (int i = 0; i < 3; ++i) captureSound(*deck, CMTimeMake(i, 48000));
  flush();
  EXPECT_THAT(audioTimes, IsEmpty()) << "no timescale yet";
  EXPECT_THAT(log.lines(), ElementsAre("4 Dropping Sound until a picture tells the timescale of its time stamps!\n"));

  deck->captureFrame(CMTimeMake(600, 600));
  flush();
  captureSound(*deck, CMTimeMake(48000, 48000));
  flush();
  provider->plug(lone);
  const auto device = AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio).front();
  manager->_RemoveDevice(manager->getDeviceWithName("Mic Audio"));
  source().setAudioTrackDevice(device.get());
  const auto unclaimed = SampleLedger::of(AVMediaTypeAudio).unclaimed;
  captureSound(*lone, CMTimeMake(7, 44100));
  captureSound(*deck, CMTimeMake(96000, 48000));
  source().stopDevice();

  EXPECT_EQ(source().getAudioDeviceID(), "m");
  EXPECT_THAT(audioTimes, ElementsAre(600, 7));
  EXPECT_EQ(SampleLedger::of(AVMediaTypeAudio).unclaimed, unclaimed + 1) << "the sound that nobody hears any more";
}

TEST_F(DeviceTest, AMicrophoneThatJoinsARunningCameraIsHeardAtOnceAlsoWhenItComesBack) {
  detect({fake::camera("Cam", "c", {"m"})});
  start();
  provider->plug(microphone);
  registerBoth();
  captureSound(*microphone, CMTimeMake(5, 44100));
  flush();

  provider->unplug(microphone);
  auto sameMicrophone = fake::microphone("Mic", "m", {"c"});
  provider->plug(sameMicrophone);
  captureSound(*sameMicrophone, CMTimeMake(6, 44100));
  source().stopDevice();

  EXPECT_THAT(audioTimes, ElementsAre(5, 6));
  EXPECT_EQ(manager->getDeviceCount(), 1);
}

TEST_F(DeviceTest, ASourcesChangeIsToldToWhomItConcernsAndAnOutputMayBeTakenOutForATime) {
  const auto camera = fake::camera("Cam", "c");
  detect({camera});
  std::pair<int, int> codes, pictures;  // so far, and of late
  const auto note = [](void* context, int code) { static_cast<std::pair<int, int>*>(context)->second = code; };
  source().setSourceChangeCallback(note, &codes);
  source().notifySourceChange(7);
  source().setSourceChangeCallback(note, nullptr);
  source().notifySourceChange(8);
  source().setSourceChangeCallback(nullptr, &codes);
  source().notifySourceChange(9);
  EXPECT_EQ(codes.second, 7);

  const auto count = [](void* context, BRV_VideoBuffer*) { ++static_cast<std::pair<int, int>*>(context)->second; };
  source().setVideoDataArriveCallback(count, &pictures);
  for (const int expected : {1, 1, 2}) {
    if (expected == 1 && pictures.second == 1) source().disconnectOutput();
    if (expected == 2) source().reconnectOutput();
    start();
    camera->captureFrame(CMTimeMake(1, 30));
    source().stopDevice();
    EXPECT_EQ(pictures.second, expected);
  }
}

class FailureTest : public FrameworkTest {
 protected:
  FailureTest() {
    zThread::SetSleepFunction([](unsigned) {});
  }
  ~FailureTest() override { zThread::SetSleepFunction(nullptr); }

  void registerVideo() {
    BRV_RegisterVideoDataArrivedCallback(
        nullptr, "Cam Video", [](void*, BRV_VideoBuffer*) {}, this);
  }
  static std::string errorMessage(int code) {
    std::array<char, 256> text;
    int length = 0;
    BRV_GetErrorMessage(nullptr, nullptr, code, nullptr, &length);
    BRV_GetErrorMessage(nullptr, nullptr, code, text.data(), &length);
    return text.data();
  }
};

TEST_F(FailureTest, WhatKeepsASourceFromDeliveringIsLoggedAndHasAMessage) {
  const auto camera = fake::camera("Cam", "c");
  const auto provider = fake::install({camera, fake::camera("Other", "o")});
  BRV_IntitializeLibrary();
  AV::DeviceManager::instance()->detectDeviceConnect();
  const LogCapture log;
  camera->whileStarting = [] { throw std::system_error(EAGAIN, std::generic_category(), "No thread"); };
  registerVideo();
  const std::string reason = errorMessage(0);
  EXPECT_THAT(reason, testing::HasSubstr("No thread"));

  camera->whileStarting = [] { throw std::bad_alloc(); };
  EXPECT_EQ(BRV_SetSourceSettings(nullptr, "Cam Video", ""), 0);
  EXPECT_EQ(errorMessage(0), "Out of memory.");

  camera->whileStarting = {};
  camera->configurationError = "Busy elsewhere.";
  registerVideo();
  EXPECT_TRUE(camera->isRunning());
  EXPECT_EQ(errorMessage(0), "Busy elsewhere.");

  camera->fail("Someone pulled the cable.");
  EXPECT_EQ(errorMessage(0), "Someone pulled the cable.");

  camera->fail("Someone else has it.");
  camera->captureFrame(CMTimeMake(1, 30));
  EXPECT_EQ(errorMessage(0), "Someone pulled the cable.") << "the message before: what is over is no error any more";

  camera->fail("Someone else has it.");
  registerVideo();
  camera->captureFrame(CMTimeMake(2, 30));
  EXPECT_EQ(errorMessage(0), "Busy elsewhere.") << "which is not over";

  EXPECT_THAT(log.lines(),
              ElementsAre("4 Error Starting Source Cam Video: " + reason + "\n",
                          "4 Error Starting Source Cam Video: Out of memory.\n",
                          "4 Error Starting Source Cam Video: Busy elsewhere.\n",
                          "4 Error Running Source Cam Video: Someone pulled the cable.\n",
                          "4 Error Running Source Cam Video: Someone else has it.\n", "4 Source Cam Video runs again\n",
                          "4 Error Running Source Cam Video: Someone else has it.\n",
                          "4 Error Starting Source Cam Video: Busy elsewhere.\n", "4 Source Cam Video runs again\n"));
  BRV_UninitializeLibrary();
}

}  // namespace

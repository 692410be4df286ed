#include "AVDevice.h"

#include <gmock/gmock.h>

#include "SourceTest.h"

namespace {

using testing::ElementsAre;

/// A source made by detection, and what its callbacks received.
class DeviceTest : public SourceTest {
 protected:
  /// Starts without the pause for the automatic choice of a format.
  void start() { source().restartDevice(); }
  static void captureSound(fake::Device& device, CMTime time) {
    const std::vector<float> silence(2 * 1024);
    device.captureSound(time, silence.data(), 1024);
  }

  static void hear(void* test, BRV_AudioBuffer* buffer) {
    static_cast<DeviceTest*>(test)->audioTimes.push_back(buffer->timeStamp);
  }

  std::vector<std::int64_t> audioTimes;  ///< written on a capture queue, read once the source has stopped
};

TEST_F(DeviceTest, AMicrophoneTakesTheSoundOfACamcorderOver) {
  auto deck = fake::camcorder("Deck", "d");
  auto lone = fake::microphone("Mic", "m");
  detect({deck});
  source().setAudioDataArrivedCallback(hear, this);
  start();
  deck->captureFrame(CMTimeMake(600, 600));
  source().stopDevice();
  start();
  provider->plug(lone);
  const auto device = AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio).front();
  manager->_RemoveDevice(manager->getDeviceWithName("Mic Audio"));
  source().setAudioTrackDevice(device.get());
  const auto unclaimed = SampleLedger::of(AVMediaTypeAudio).unclaimed;
  captureSound(*lone, CMTimeMake(7, 44100));
  captureSound(*deck, CMTimeMake(96000, 48000));
  source().stopDevice();

  EXPECT_EQ(source().getAudioDeviceID(), "m");
  EXPECT_THAT(audioTimes, ElementsAre(7));
  EXPECT_EQ(SampleLedger::of(AVMediaTypeAudio).unclaimed, unclaimed + 1) << "the sound that nobody hears any more";
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

}  // namespace

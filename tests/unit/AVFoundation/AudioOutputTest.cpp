#include <AVFoundation/AVFoundation.h>
#include <Foundation/NSValue.h>
#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <numbers>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

struct Buffer {
  CMTime time;
  std::vector<std::int16_t> sound;
};

class AudioOutputTest : public FrameworkTest, public AVCaptureAudioDataOutputSampleBufferDelegate {
 protected:
  ~AudioOutputTest() override {
    if (session) session->stopRunning();
    output->setSampleBufferDelegate(nullptr, nullptr);
    dispatch_sync(queue.get(), [] {});
  }

  void captureOutputDidOutputSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    const CMBlockBufferRef block = CMSampleBufferGetDataBuffer(sample);
    Buffer buffer{CMSampleBufferGetPresentationTimeStamp(sample), {}};
    buffer.sound.resize(CMBlockBufferGetDataLength(block) / 2);
    CMBlockBufferCopyDataBytes(block, 0, buffer.sound.size() * 2, buffer.sound.data());
    EXPECT_EQ(CMSampleBufferGetNumSamples(sample), static_cast<CMItemCount>(buffer.sound.size() / 2));
    buffers.push_back(std::move(buffer));
  }

  /// A session from a microphone at the format of this index to the host's format.
  void start(std::size_t formatIndex) {
    microphone->selectedAudioFormat = formatIndex;
    fake::install({microphone});
    session = makeRef<AVCaptureSession>();
    session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
    microphone->selectedAudioFormat = formatIndex;
    EXPECT_TRUE(output->setAudioSettings(
        makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
                                  {AVFormatIDKey, NSNumber::numberWithUnsignedInt(kAudioFormatLinearPCM)},
                                  {AVSampleRateKey, NSNumber::numberWithInt(44100)},
                                  {AVLinearPCMBitDepthKey, NSNumber::numberWithInt(16)},
                                  {AVLinearPCMIsFloatKey, NSNumber::numberWithBool(false)},
                                  {AVLinearPCMIsNonInterleaved, NSNumber::numberWithBool(false)},
                                  {AVNumberOfChannelsKey, NSNumber::numberWithInt(2)}})
            .get()));
    output->setSampleBufferDelegate(this, queue.get());
    session->addOutput(output.get());
    session->startRunning();
  }

  std::shared_ptr<fake::Device> microphone = fake::microphone("Mic", "m");
  Ref<AVCaptureSession> session;
  Ref<AVCaptureAudioDataOutput> output = makeRef<AVCaptureAudioDataOutput>();
  CFRef<dispatch_queue_t> queue = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("sound", DISPATCH_QUEUE_SERIAL));
  std::vector<Buffer> buffers;
};

TEST_F(AudioOutputTest, SoundInTheFormatAskedForIsBitIdentical) {
  start(0);
  std::vector<std::int16_t> sound(2000);
  for (std::size_t i = 0; i < sound.size(); ++i) sound[i] = static_cast<std::int16_t>(i * 32749);

  microphone->captureSound(CMTimeMake(10, 44100), sound.data(), 1000);
  session->stopRunning();

  ASSERT_EQ(buffers.size(), 1U);
  EXPECT_EQ(buffers[0].sound, sound);
  EXPECT_EQ(buffers[0].time.value, 10);
}

TEST_F(AudioOutputTest, ConvertedBuffersFollowEachOtherWithoutASeam) {
  start(1);
  constexpr int Chunks = 60;
  constexpr std::uint32_t ChunkFrames = 480;
  constexpr double frequency = 997;
  for (int chunk = 0; chunk < Chunks; ++chunk) {
    std::vector<float> sound(ChunkFrames * 2);
    for (std::uint32_t i = 0; i < ChunkFrames; ++i) {
      const double time = (chunk * static_cast<double>(ChunkFrames) + i) / 48000;
      sound[2 * i] = sound[2 * i + 1] = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * frequency * time));
    }
    microphone->captureSound(CMTimeMake(chunk * static_cast<std::int64_t>(ChunkFrames), 48000), sound.data(),
                             ChunkFrames);
    dispatch_sync(queue.get(), [] {});
  }
  session->stopRunning();

  std::vector<std::int16_t> whole;
  for (const Buffer& buffer : buffers) {
    const double expected = static_cast<double>(whole.size()) / 2 / 44100;
    EXPECT_NEAR(CMTimeGetSeconds(buffer.time), expected, 1.0 / 48000) << "stamped with the time of its first frame";
    whole.insert(whole.end(), buffer.sound.begin(), buffer.sound.end());
  }
  const double frames = Chunks * static_cast<double>(ChunkFrames) * 44100 / 48000;
  EXPECT_NEAR(static_cast<double>(whole.size()) / 2, frames, 100);
  double worst = 0;
  for (std::size_t i = 200; i < whole.size() / 2; ++i) {
    const double ideal = 16384 * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i) / 44100);
    worst = std::max(worst, std::abs(whole[2 * i] - ideal));
  }
  EXPECT_LT(worst, 2.0);
}

TEST_F(AudioOutputTest, AGapInTheTimeStampsBeginsANewStream) {
  start(1);
  const std::vector<float> loud(960, 0.5F);
  const std::vector<float> silent(960, 0.0F);

  microphone->captureSound(CMTimeMake(0, 48000), loud.data(), 480);
  microphone->captureSound(CMTimeMake(48000, 48000), silent.data(), 480);
  session->stopRunning();

  ASSERT_EQ(buffers.size(), 2U);
  EXPECT_EQ(buffers[1].time.value, 48000);
  EXPECT_EQ(buffers[1].sound, std::vector<std::int16_t>(buffers[1].sound.size()))
      << "nothing of the old stream is left";
}

TEST_F(AudioOutputTest, TheDevicesFormatMayChangeWhileItRuns) {
  start(1);
  const std::vector<float> floats(960, 0.25F);
  const std::vector<std::int16_t> integers(960, 8192);

  microphone->captureSound(CMTimeMake(0, 48000), floats.data(), 480);
  microphone->selectedAudioFormat = 0;
  microphone->captureSound(CMTimeMake(441, 44100), integers.data(), 480);
  session->stopRunning();

  ASSERT_EQ(buffers.size(), 2U);
  EXPECT_EQ(buffers[1].sound, integers);
}

TEST_F(AudioOutputTest, OnlyLinearPCMIsAccepted) {
  EXPECT_FALSE(output->setAudioSettings(makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
                                                                  {AVFormatIDKey, NSNumber::numberWithInt(0x61616320)}})
                                            .get()));
  EXPECT_TRUE(output->setAudioSettings(nullptr));
}

}  // namespace

#include <AVFoundation/AVFoundation.h>
#include <Foundation/NSValue.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

class AudioOutputTest : public FrameworkTest, public AVCaptureAudioDataOutputSampleBufferDelegate {
 protected:
  void captureOutputDidOutputSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    received += static_cast<std::uint64_t>(CMSampleBufferGetNumSamples(sample));
  }

  AudioOutputTest() {
    microphone->described.audioFormats.push_back(fake::audioFormat(216000));
    fake::install({microphone});
    auto settings = makeRef<NSDictionary>();
    settings->insert(AVSampleRateKey, NSNumber::numberWithInt(44100));
    output->setAudioSettings(settings.get());
    output->setSampleBufferDelegate(this, queue.get());
    session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
    session->addOutput(output.get());
  }
  ~AudioOutputTest() override { output->setSampleBufferDelegate(nullptr, nullptr); }

  const std::shared_ptr<fake::Device> microphone = fake::microphone("Mic", "m");
  const Ref<AVCaptureSession> session = makeRef<AVCaptureSession>();
  const Ref<AVCaptureAudioDataOutput> output = makeRef<AVCaptureAudioDataOutput>();
  const CFRef<dispatch_queue_t> queue =
      CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("sound", DISPATCH_QUEUE_SERIAL));
  std::uint64_t received = 0;
};

TEST_F(AudioOutputTest, EveryFrameThatGoesIntoTheConversionComesOutOrIsOwed) {
  microphone->selectAudioFormat(1);  // 48,000 Hz
  const std::vector<float> silence(2 * 4800);

  session->startRunning();
  // In the second half of these ten seconds' worth, a gap of an hour begins a new stream.
  for (int i = 0; i < 100; ++i) {
    microphone->captureSound(CMTimeMake(i * 4800 + (i < 50 ? 0 : 3600 * 48000), 48000), silence.data(), 4800);
  }
  const double owed = output->statistics().frames.owed;
  microphone->loseSound(CMTimeMake(0, 48000), 4800);
  EXPECT_EQ(output->statistics().frames.owed, owed);
  session->stopRunning();
  const auto counts = output->statistics();

  EXPECT_EQ(counts.droppedByDevice, 1U);
  EXPECT_EQ(counts.frames.dropped, 4800U);
  EXPECT_EQ(counts.frames.captured, 484'800U);
  EXPECT_EQ(counts.frames.converted, 480'000U);
  EXPECT_EQ(counts.frames.delivered, received);
  EXPECT_GT(owed, 0);
  EXPECT_LT(owed, 256) << "half the length of the conversion's filter, and little more";
  EXPECT_NEAR(counts.frames.forgone, 2 * owed, 1) << "once for the gap and once for the end";
  EXPECT_NEAR(static_cast<double>(received) + counts.frames.forgone, 441'000, 1e-3);
}

TEST_F(AudioOutputTest, SoundThatCannotBeConvertedIsToldOfOnceForAllItsBuffers) {
  microphone->selectAudioFormat(2);
  testing::internal::CaptureStderr();
  session->startRunning();
  for (int i = 0; i < 3; ++i) microphone->captureSound(CMTimeMake(i, 216000), "2 x 2", 1);
  session->stopRunning();

  const std::string told = testing::internal::GetCapturedStderr();
  EXPECT_EQ(output->statistics().droppedConversion, 3U);
  EXPECT_THAT(told, testing::EndsWith(" The sound of Mic, Linear PCM, 16 bit little-endian signed integer, 2 channels, "
                                      "216000 Hz, cannot be converted\n"));
  EXPECT_EQ(std::ranges::count(told, '\n'), 1);
}

}  // namespace

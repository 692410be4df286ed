#include <AVFoundation/AVFoundation.h>
#include <Foundation/NSValue.h>
#include <gtest/gtest.h>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

class AudioOutputTest : public FrameworkTest, public AVCaptureAudioDataOutputSampleBufferDelegate {
 protected:
  void captureOutputDidOutputSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    received += static_cast<std::uint64_t>(CMSampleBufferGetNumSamples(sample));
  }

  std::uint64_t received = 0;
};

TEST_F(AudioOutputTest, EveryFrameThatGoesIntoTheConversionComesOutOrIsOwed) {
  const auto microphone = fake::microphone("Mic", "m");
  fake::install({microphone});
  const auto session = makeRef<AVCaptureSession>();
  const auto output = makeRef<AVCaptureAudioDataOutput>();
  const auto queue = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("sound", DISPATCH_QUEUE_SERIAL));
  auto settings = makeRef<NSDictionary>();
  settings->insert(AVSampleRateKey, NSNumber::numberWithInt(44100));
  output->setAudioSettings(settings.get());
  output->setSampleBufferDelegate(this, queue.get());
  session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
  session->addOutput(output.get());
  microphone->selectAudioFormat(1);  // 48,000 Hz
  const std::vector<float> silence(2 * 4800);

  session->startRunning();
  // In the second half of these ten seconds' worth, a gap of an hour begins a new stream.
  for (int i = 0; i < 100; ++i) {
    microphone->captureSound(CMTimeMake(i * 4800 + (i < 50 ? 0 : 3600 * 48000), 48000), silence.data(), 4800);
  }
  const double owed = output->statistics().frames.owed;
  session->stopRunning();
  const auto counts = output->statistics();
  output->setSampleBufferDelegate(nullptr, nullptr);

  EXPECT_EQ(counts.frames.captured, 480'000U);
  EXPECT_EQ(counts.frames.converted, 480'000U);
  EXPECT_EQ(counts.frames.delivered, received);
  EXPECT_GT(owed, 0);
  EXPECT_LT(owed, 256) << "half the length of the conversion's filter, and little more";
  EXPECT_NEAR(counts.frames.forgone, 2 * owed, 1) << "once for the gap and once for the end";
  EXPECT_NEAR(static_cast<double>(received) + counts.frames.forgone, 441'000, 1e-3);
}

}  // namespace

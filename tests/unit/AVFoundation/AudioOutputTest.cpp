#include <AVFoundation/AVFoundation.h>
#include <Foundation/NSValue.h>
#include <gtest/gtest.h>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

class AudioOutputTest : public FrameworkTest, public AVCaptureAudioDataOutputSampleBufferDelegate {
 protected:
  AudioOutputTest() {
    fake::install({microphone});
    session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
    output->setAudioSettings(makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
                                                       {AVSampleRateKey, NSNumber::numberWithInt(44100)}})
                                 .get());
    output->setSampleBufferDelegate(this, queue.get());
    session->addOutput(output.get());
    microphone->selectAudioFormat(1);  // 48,000 Hz
  }
  ~AudioOutputTest() override { output->setSampleBufferDelegate(nullptr, nullptr); }

  void captureOutputDidOutputSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    received += static_cast<std::uint64_t>(CMSampleBufferGetNumSamples(sample));
  }

  std::shared_ptr<fake::Device> microphone = fake::microphone("Mic", "m");
  Ref<AVCaptureSession> session = makeRef<AVCaptureSession>();
  Ref<AVCaptureAudioDataOutput> output = makeRef<AVCaptureAudioDataOutput>();
  CFRef<dispatch_queue_t> queue = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("sound", DISPATCH_QUEUE_SERIAL));
  std::uint64_t received = 0;
};

TEST_F(AudioOutputTest, EveryFrameThatGoesIntoTheConversionComesOutOrIsOwed) {
  const std::vector<float> silence(2 * 4800);
  session->startRunning();
  // In the second half of these ten seconds' worth, a gap of an hour begins a new stream.
  for (int i = 0; i < 100; ++i) {
    microphone->captureSound(CMTimeMake(i * 4800 + (i < 50 ? 0 : 3600 * 48000), 48000), silence.data(), 4800);
  }
  const auto before = output->statistics().frames;
  session->stopRunning();
  const auto counts = output->statistics();

  EXPECT_EQ(counts.frames.captured, 480'000U);
  EXPECT_EQ(counts.frames.converted, 480'000U);
  EXPECT_EQ(counts.frames.delivered, received);
  EXPECT_GT(before.owed, 0);
  EXPECT_LT(before.owed, 256) << "half the length of the conversion's filter, and little more";
  EXPECT_NEAR(counts.frames.forgone, 2 * before.owed, 1) << "once for the gap and once for the end";
  EXPECT_NEAR(static_cast<double>(received) + counts.frames.forgone, 441'000, 1e-3);
  EXPECT_TRUE(counts.isBalanced());
}

}  // namespace

#include <AVFoundation/AVFoundation.h>
#include <Foundation/NSValue.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

class AudioOutputTest : public FrameworkTest, public AVCaptureAudioDataOutputSampleBufferDelegate {
 protected:
  void captureOutputDidOutputSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    received += static_cast<std::uint64_t>(CMSampleBufferGetNumSamples(sample));
    const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    bytes.resize(CMBlockBufferGetDataLength(data));
    CMBlockBufferCopyDataBytes(data, 0, bytes.size(), bytes.data());
  }

  AudioOutputTest() {
    for (const double rate : {216000, 44100}) microphone->described.audioFormats.push_back(fake::audioFormat(rate));
    microphone->described.audioFormats.back().stream.mFormatFlags |= kAudioFormatFlagIsBigEndian;
    fake::install({microphone});
    set({{AVSampleRateKey, 44100}});
    output->setSampleBufferDelegate(this, queue.get());
    session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
    session->addOutput(output.get());
  }
  ~AudioOutputTest() override { output->setSampleBufferDelegate(nullptr, nullptr); }

  bool set(const std::map<CFStringRef, int>& settings) {
    auto dictionary = makeRef<NSDictionary>();
    for (const auto& [key, value] : settings) dictionary->insert(key, NSNumber::numberWithInt(value));
    return output->setAudioSettings(dictionary.get());
  }

  const std::shared_ptr<fake::Device> microphone = fake::microphone("Mic", "m");
  const Ref<AVCaptureSession> session = makeRef<AVCaptureSession>();
  const Ref<AVCaptureAudioDataOutput> output = makeRef<AVCaptureAudioDataOutput>();
  const CFRef<dispatch_queue_t> queue =
      CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("sound", DISPATCH_QUEUE_SERIAL));
  std::uint64_t received = 0;
  std::string bytes;  ///< of the last buffer
};

TEST_F(AudioOutputTest, SoundComesInTheFormatOfTheSettingsAndWhatTheyLeaveOpenIsTheDevices) {
  using namespace std::string_literals;
  microphone->selectAudioFormat(3);  // big-endian
  const std::pair<std::map<CFStringRef, int>, std::string> cases[] = {
      {{}, "\x40\0\xE0\0\x20\0\x10\0"s},
      {{{AVLinearPCMIsBigEndianKey, 0}}, "\0\x40\0\xE0\0\x20\0\x10"s},
      {{{AVLinearPCMBitDepthKey, 24}}, "\x40\0\0\xE0\0\0\x20\0\0\x10\0\0"s},
      {{{AVNumberOfChannelsKey, 1}}, "\x10\0\x18\0"s},
      {{{AVLinearPCMIsNonInterleaved, 1}}, "\x40\0\x20\0\xE0\0\x10\0"s},
      {{{AVLinearPCMIsFloatKey, 1}, {AVLinearPCMBitDepthKey, 32}}, "?\0\0\0\xBE\x80\0\0>\x80\0\0>\0\0\0"s},
  };
  session->startRunning();
  for (const auto& [settings, expected] : cases) {
    EXPECT_TRUE(set(settings));
    EXPECT_FALSE(set({{AVFormatIDKey, 1}})) << "which changes nothing";
    microphone->captureSound(CMTimeMake(0, 44100), cases[0].second.data(), 2);
    dispatch_sync(queue.get(), [] {});
    EXPECT_EQ(bytes, expected);
  }
  session->stopRunning();
}

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
  EXPECT_THAT(told,
              testing::MatchesRegex("[0-9]{4}-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} "
                                    "unit_avfoundation\\[[0-9]+:[0-9]+\\] The sound of Mic, Linear PCM, 16 bit "
                                    "little-endian signed integer, 2 channels, 216000 Hz, cannot be converted\n"));
}

}  // namespace

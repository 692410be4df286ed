#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <numbers>

#include "AVCaptureDelegate.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"
#include "support/Samples.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr AudioStreamBasicDescription HostFormat{44100, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
constexpr AudioStreamBasicDescription Float48{48000, kAudioFormatLinearPCM, 9, 8, 1, 8, 2, 32, 0};
constexpr AudioStreamBasicDescription PlanarFloat44{44100, kAudioFormatLinearPCM, 41, 4, 1, 4, 2, 32, 0};

struct Delivered {
  BRV_AudioBuffer record;
  std::vector<std::uint8_t> bytes;
};

class AudioDelegateTest : public FrameworkTest {
 protected:
  AudioDelegateTest() : delegate(ACaptureDelegate::init()) {
    delegate->setAudioDataArrivedCallback([](void* context, BRV_AudioBuffer* buffer) {
      auto* test = static_cast<AudioDelegateTest*>(context);
      const auto* bytes = static_cast<const std::uint8_t*>(buffer->data);
      test->delivered.push_back({*buffer, {bytes, bytes + buffer->dataLength}});
    });
    delegate->setAudioDataArrivedContext(this);
  }

  void deliver(const AudioStreamBasicDescription& stream, std::vector<std::vector<std::uint8_t>> pieces,
               CMTime time = CMTimeMake(0, 44100)) {
    delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::sound(stream, time, pieces, 1).get(), nullptr);
  }

  LogCapture log;
  Ref<ACaptureDelegate> delegate;
  std::vector<Delivered> delivered;
};

std::vector<std::uint8_t> counting(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7);
  return bytes;
}

std::vector<std::uint8_t> floatSine(std::size_t frames, double rate) {
  std::vector<std::uint8_t> bytes(frames * 8);
  for (std::size_t i = 0; i < frames; ++i) {
    const double phase = 2 * std::numbers::pi * 1000 * static_cast<double>(i) / rate;
    const float both[] = {static_cast<float>(0.5 * std::sin(phase)), static_cast<float>(0.5 * std::sin(phase))};
    std::memcpy(&bytes[8 * i], both, sizeof both);
  }
  return bytes;
}

TEST_F(AudioDelegateTest, SoundInTheHostsFormatIsHandedOverInPlaceAndWholeWhereItComesInPieces) {
  const auto whole = counting(400);
  const auto sample = samples::sound(HostFormat, CMTimeMake(123, 44100), {whole}, 100);
  char* memory = nullptr;
  CMBlockBufferGetDataPointer(CMSampleBufferGetDataBuffer(sample.get()), 0, nullptr, nullptr, &memory);

  delegate->captureOutputDidOutputSampleBuffer(nullptr, sample.get(), nullptr);
  deliver(HostFormat, {{whole.begin(), whole.begin() + 130}, {whole.begin() + 130, whole.end()}});

  ASSERT_EQ(delivered.size(), 2U);
  const BRV_AudioBuffer& record = delivered[0].record;
  EXPECT_EQ(record.data, memory);
  EXPECT_EQ(record.dataLength, 400);
  EXPECT_EQ(record.timeStamp, 123);
  EXPECT_EQ(record.format, BRV_FORMAT_PCM);
  EXPECT_EQ(record.sampleRate, 44100);
  EXPECT_EQ(record.channels, 2);
  EXPECT_EQ(record.bitsPerSample, 16);
  EXPECT_EQ(delivered[1].bytes, whole);
}

TEST_F(AudioDelegateTest, ConvertedBuffersHaveOneHostFrameForEachInputFrame) {
  for (const std::size_t frames : {1024, 2048, 1024}) {
    deliver(Float48, {floatSine(frames, 48000)});
    EXPECT_EQ(delivered.back().bytes.size(), frames * 4);
  }
  EXPECT_EQ(delivered[2].record.data, delivered[1].record.data) << "the larger buffer is used again";
  deliver(PlanarFloat44, {std::vector<std::uint8_t>(4096)});
  EXPECT_EQ(delivered.back().bytes.size(), 512U * 4);
}

TEST_F(AudioDelegateTest, EveryBufferIsConvertedOnItsOwnAndWhatTheConverterDoesNotFillIsSilence) {
  const auto sine = floatSine(1024, 48000);
  deliver(Float48, {sine});
  deliver(Float48, {floatSine(2048, 30000)});  // leaves sound in the delegate's buffer
  deliver(Float48, {sine});

  EXPECT_EQ(delivered[0].bytes, delivered[2].bytes);
  std::vector<std::int16_t> sound(2048);
  std::memcpy(sound.data(), delivered[2].bytes.data(), delivered[2].bytes.size());
  const std::size_t produced = 1024 * 44100 / 48000;
  double energy = 0;
  for (std::size_t i = 0; i < produced * 2; ++i) energy += std::abs(sound[i]);
  EXPECT_GT(energy / static_cast<double>(produced * 2), 8000) << "the converted part is a sine at half scale";
  for (std::size_t i = (produced + 1) * 2; i < sound.size(); ++i) ASSERT_EQ(sound[i], 0) << i;
}

TEST_F(AudioDelegateTest, FlagsTellTheFirstTimescaleItsChangesAndADirtyFormat) {
  const auto flagsAt = [this](CMTime time) {
    deliver(HostFormat, {counting(4)}, time);
    return delivered.back().record.flags;
  };
  EXPECT_EQ(flagsAt(CMTimeMake(0, 44100)), 0x20);
  EXPECT_EQ(flagsAt(CMTimeMake(1, 44100)), 0);
  EXPECT_EQ(flagsAt(CMTimeMake(2, 600)), 0x20);
  delegate->dirtyFormat();
  deliver(HostFormat, {});  // an empty buffer is dropped, and the mark waits
  EXPECT_EQ(flagsAt(CMTimeMake(3, 600)), 0x20);
  EXPECT_EQ(flagsAt(CMTimeMake(4, 600)), 0);
}

TEST_F(AudioDelegateTest, SoundOfAMuxedSourceIsStampedInTheTimescaleOfItsPictures) {
  auto video = VCaptureDelegate::initWithDevice(nullptr);
  delegate->setVideoDelegate(video.get());
  const CMTime oneSecond = CMTimeMake(48000, 48000);

  for (const std::int32_t notYet : {-1, 0}) {
    video->setTimescale(notYet);
    deliver(HostFormat, {counting(4)}, oneSecond);
    EXPECT_THAT(delivered, IsEmpty());
    EXPECT_EQ(delegate->timescale(), -1);
  }
  video->setTimescale(600);
  deliver(HostFormat, {counting(4)}, oneSecond);
  ASSERT_EQ(delivered.size(), 1U);
  EXPECT_EQ(delivered[0].record.timeStamp, 600);
  EXPECT_EQ(delegate->timescale(), 600);
}

TEST_F(AudioDelegateTest, UnusableSoundIsDroppedAndLoggedWhereItSaysSo) {
  auto compressed = HostFormat, noBytes = Float48, noChannels = PlanarFloat44, tooFast = Float48;
  compressed.mFormatID = 0x61616320;
  noBytes.mBytesPerFrame = noBytes.mBytesPerPacket = 0;
  noChannels.mChannelsPerFrame = 0;
  tooFast.mSampleRate = 1e6;

  for (const auto& stream : {compressed, noBytes, noChannels, tooFast}) deliver(stream, {counting(64)});
  deliver(HostFormat, {});
  delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::frame(nullptr, CMTimeMake(0, 1)).get(), nullptr);
  EXPECT_THAT(delivered, IsEmpty());
  const auto failure = testing::StartsWith("4 Failed to create PCM Audio Converter ");
  EXPECT_THAT(log.lines(),
              ElementsAre("4 Bad format or bogus ASBD!", failure, failure,
                          "4 Failed to create PCM Audio Converter 560558962\n", "4 Bad format or bogus ASBD!"));

  deliver(Float48, {floatSine(1024, 48000)});
  EXPECT_EQ(delivered.size(), 1U) << "the next good buffer goes through";
  delegate->setAudioDataArrivedContext(nullptr);
  deliver(HostFormat, {counting(4)});
  EXPECT_EQ(delivered.size(), 1U) << "without context nothing is called";
}

TEST(AudioConverterTextTest, StatusesHaveTheirTexts) {
  const auto text = ACaptureDelegate::GetAudioConverterErrorString;
  const std::string texts[] = {text(0), text(-50), text(0x216F7372), text(0x666D743F)};
  EXPECT_THAT(texts, ElementsAre("", "Unknown Error", "Output Sample Rate out of Range", "Format Not Supported"));
}

}  // namespace

#include <gmock/gmock.h>

#include <cstring>

#include "AVCaptureDelegate.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"
#include "support/Samples.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

constexpr AudioStreamBasicDescription HostFormat{44100, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
constexpr AudioStreamBasicDescription Float48{48000, kAudioFormatLinearPCM, 9, 8, 1, 8, 2, 32, 0};
constexpr AudioStreamBasicDescription PlanarFloat44{44100, kAudioFormatLinearPCM, 41, 4, 1, 4, 2, 32, 0};

class AudioDelegateTest : public FrameworkTest {
 protected:
  AudioDelegateTest() {
    delegate->setAudioDataArrivedCallback([](void* context, BRV_AudioBuffer* buffer) {
      auto* test = static_cast<AudioDelegateTest*>(context);
      const auto* bytes = static_cast<const std::uint8_t*>(buffer->data);
      test->records.push_back(*buffer);
      test->sounds.emplace_back(bytes, bytes + buffer->dataLength);
    });
    delegate->setAudioDataArrivedContext(this);
  }

  void deliver(const AudioStreamBasicDescription& stream, const std::vector<Bytes>& pieces,
               CMTime time = CMTimeMake(0, 44100)) {
    delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::sound(stream, time, pieces, 1).get(), nullptr);
  }
  int flagsAt(CMTime time) {
    deliver(HostFormat, {Bytes(4)}, time);
    return records.back().flags;
  }

  LogCapture log;
  Ref<ACaptureDelegate> delegate = ACaptureDelegate::init();
  std::vector<BRV_AudioBuffer> records;
  std::vector<Bytes> sounds;
};

Bytes floats(std::size_t frames, float value) {
  const std::vector values(2 * frames, value);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(values.data());
  return {bytes, bytes + values.size() * sizeof(float)};
}

std::vector<std::int16_t> samplesOf(const Bytes& bytes) {
  std::vector<std::int16_t> samples(bytes.size() / 2);
  std::memcpy(samples.data(), bytes.data(), bytes.size());
  return samples;
}

TEST_F(AudioDelegateTest, SoundInTheHostsFormatIsHandedOverInPlaceAndWholeWhereItComesInPieces) {
  Bytes whole(400);
  for (std::size_t i = 0; i < whole.size(); ++i) whole[i] = static_cast<std::uint8_t>(i * 7);
  const auto sample = samples::sound(HostFormat, CMTimeMake(123, 44100), {whole}, 100);
  char* memory = nullptr;
  CMBlockBufferGetDataPointer(CMSampleBufferGetDataBuffer(sample.get()), 0, nullptr, nullptr, &memory);

  delegate->captureOutputDidOutputSampleBuffer(nullptr, sample.get(), nullptr);
  deliver(HostFormat, {{whole.begin(), whole.begin() + 130}, {whole.begin() + 130, whole.end()}});

  EXPECT_THAT(sounds, ElementsAre(whole, whole));
  const BRV_AudioBuffer& r = records.at(0);
  EXPECT_EQ(std::tuple(r.format, r.sampleRate, r.channels, r.bitsPerSample, r.dataLength, r.timeStamp),
            std::tuple(BRV_FORMAT_PCM, 44100, 2, 16, 400, 123));
  EXPECT_EQ(r.data, memory);
}

TEST_F(AudioDelegateTest, EveryBufferIsConvertedOnItsOwnToItsLengthAndWhatTheConverterDoesNotFillIsSilence) {
  for (const Bytes& sound : {floats(1024, 0.5F), floats(2048, -0.9F), floats(1024, 0.5F)}) {
    deliver(Float48, {sound});
    EXPECT_EQ(sounds.back().size(), sound.size() / 2) << "one frame of the host's for each";
  }
  EXPECT_EQ(records[2].data, records[1].data) << "the larger buffer is used again";
  EXPECT_EQ(sounds[0], sounds[2]);

  const std::vector<std::int16_t> sound = samplesOf(sounds[2]);
  const auto end = sound.begin() + 2 * (1024 * 44100 / 48000);
  EXPECT_EQ(std::vector(end - 1024, end - 1000), std::vector<std::int16_t>(24, 16384)) << "the converted part";
  EXPECT_THAT(std::vector(end + 2, sound.end()), testing::Each(0));
}

TEST_F(AudioDelegateTest, FlagsTellTheFirstTimescaleItsChangesAndADirtyFormat) {
  EXPECT_EQ(flagsAt(CMTimeMake(0, 44100)), 0x20);
  EXPECT_EQ(flagsAt(CMTimeMake(1, 44100)), 0);
  EXPECT_EQ(flagsAt(CMTimeMake(2, 600)), 0x20);
  delegate->dirtyFormat();
  deliver(HostFormat, {});  // an empty buffer is dropped, and the mark waits
  EXPECT_EQ(flagsAt(CMTimeMake(3, 600)), 0x20);
  EXPECT_EQ(flagsAt(CMTimeMake(4, 600)), 0);
}

TEST_F(AudioDelegateTest, UnusableSoundIsDroppedAndLoggedWhereItSaysSo) {
  auto compressed = HostFormat, noBytes = Float48, noChannels = PlanarFloat44, tooFast = Float48;
  compressed.mFormatID = 0x61616320;
  noBytes.mBytesPerFrame = noBytes.mBytesPerPacket = 0;
  noChannels.mChannelsPerFrame = 0;
  tooFast.mSampleRate = 1e6;

  for (const auto& stream : {compressed, noBytes, noChannels, tooFast}) deliver(stream, {Bytes(64)});
  delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::frame(nullptr, CMTimeMake(0, 1)).get(), nullptr);
  EXPECT_THAT(records, IsEmpty());
  EXPECT_EQ(delegate->withheld().accountOf(*makeRef<AVCaptureAudioDataOutput>()).counts.droppedConversion, 5U);
  const auto failure = testing::StartsWith("4 Failed to create PCM Audio Converter ");
  EXPECT_THAT(log.lines(),
              ElementsAre("4 Bad format or bogus ASBD!", failure, failure,
                          "4 Failed to create PCM Audio Converter 560558962\n", "4 Bad format or bogus ASBD!"));

  deliver(Float48, {floats(1024, 0.5F)});
  delegate->setAudioDataArrivedContext(nullptr);
  deliver(HostFormat, {Bytes(4)});
  EXPECT_EQ(records.size(), 1U) << "the next good buffer goes through, but to nobody without a context";
}

}  // namespace

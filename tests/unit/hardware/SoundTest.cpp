// WAVE files, PCM samples and tones.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include "MediaFiles.h"
#include "simulated/PCM.h"
#include "simulated/Tone.h"
#include "simulated/WAVReader.h"

namespace hardware::simulated {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string extensible(std::uint16_t code, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits,
                       std::uint32_t speakers) {
  static const std::string suffix("\0\0\0\0\x10\0\x80\0\0\xAA\0\x38\x9B\x71", 14);
  return waveFormat(0xFFFE, channels, rate, bits) + littleEndian(std::uint16_t{22}) + littleEndian(bits) +
         littleEndian(speakers) + littleEndian(code) + suffix;
}

std::vector<std::uint8_t> written(const std::vector<double>& samples, const AudioStreamBasicDescription& format) {
  std::vector<std::uint8_t> bytes(samples.size() / format.mChannelsPerFrame * format.mBytesPerFrame);
  AudioBufferList list{1, {{format.mChannelsPerFrame, static_cast<UInt32>(bytes.size()), bytes.data()}}};
  writeSamples(samples, format, list);
  return bytes;
}

TEST(WAVReaderTest, SamplesComeOutAgainByteForByteInEveryFormat) {
  struct Case {
    std::string format;
    std::uint32_t channels;
    std::uint32_t bits;
    AudioChannelLayoutTag layout;
  };
  const Case cases[] = {
      {waveFormat(1, 1, 8000, 8), 1, 8, kAudioChannelLayoutTag_Mono},
      {waveFormat(1, 2, 44100, 16), 2, 16, kAudioChannelLayoutTag_Stereo},
      {waveFormat(1, 3, 48000, 24), 3, 24, kAudioChannelLayoutTag_Unknown},
      {waveFormat(1, 2, 192000, 32), 2, 32, kAudioChannelLayoutTag_Stereo},
      {waveFormat(3, 2, 48000, 32) + littleEndian(std::uint16_t{0}), 2, 32, kAudioChannelLayoutTag_Stereo},
      {waveFormat(3, 1, 96000, 64), 1, 64, kAudioChannelLayoutTag_Mono},
      {extensible(1, 6, 48000, 24, 0x3F), 6, 24, kAudioChannelLayoutTag_MPEG_5_1_A},
      {extensible(3, 4, 48000, 32, 0x33), 4, 32, kAudioChannelLayoutTag_Quadraphonic},
  };
  MediaFolder folder;
  std::mt19937 random(1);
  for (const Case& each : cases) {
    const bool isFloat = each.format[0] == 3 || (each.format.size() > 24 && each.format[24] == 3);
    std::string data;
    for (std::uint32_t i = 0; i < 240 * each.channels; ++i) {
      const float value = std::uniform_real_distribution<float>(-2, 2)(random);
      const double wide = value;
      if (isFloat && each.bits == 32) data.append(reinterpret_cast<const char*>(&value), sizeof(value));
      if (isFloat && each.bits == 64) data.append(reinterpret_cast<const char*>(&wide), sizeof(wide));
      for (std::uint32_t byte = 0; !isFloat && byte < each.bits / 8; ++byte) data += static_cast<char>(random());
    }
    // An odd chunk in front, so that the padding byte matters.
    const auto path =
        folder.write("sound.wav", waveFile(chunk("note", "x") + chunk("fmt ", each.format) + chunk("data", data)));
    auto reader = WAVReader::open(path);
    ASSERT_TRUE(reader) << reader.reason();

    std::vector<double> samples(240 * each.channels);
    EXPECT_EQ(reader->read(0, std::span(samples).first(100 * each.channels)), 100u);
    EXPECT_EQ(reader->read(100, std::span(samples).subspan(100 * each.channels)), 140u);
    EXPECT_EQ(reader->read(240, samples), 0u);

    const auto bytes = written(samples, reader->format().stream);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), reinterpret_cast<const std::uint8_t*>(data.data())))
        << each.bits;
    EXPECT_EQ(reader->format().layout, each.layout);
  }
}

TEST(WAVReaderTest, FilesThatCannotBePlayedSayWhy) {
  const std::string format = chunk("fmt ", waveFormat(1, 2, 48000, 16));
  const std::string sound = chunk("data", "abcd");
  std::string strangeSubformat = extensible(1, 2, 48000, 16, 3);
  strangeSubformat.back() = 'x';
  std::string wrongFrameSize = waveFormat(1, 2, 48000, 16);
  wrongFrameSize[12] = 3;
  struct Case {
    std::string bytes;
    const char* reason;
  };
  const Case cases[] = {
      {"", "not a WAVE file"},
      {"RIFF", "not a WAVE file"},
      {chunk("RIFX", "WAVE" + format + sound), "not a WAVE file"},
      {waveFile(""), "no format chunk"},
      {waveFile(format), "no data chunk"},
      {waveFile(sound + format), "before its format"},
      {waveFile(format + chunk("data", "")), "no sound"},
      {waveFile(format + chunk("data", "abc")), "no sound"},
      {waveFile(chunk("fmt ", "short") + sound), "too short"},
      {waveFile(chunk("fmt ", waveFormat(2, 2, 48000, 4)) + sound), "unsupported sample format (code 2, 4 bits)"},
      {waveFile(chunk("fmt ", waveFormat(1, 2, 48000, 20)) + sound), "unsupported sample format"},
      {waveFile(chunk("fmt ", waveFormat(3, 2, 48000, 16)) + sound), "unsupported sample format"},
      {waveFile(chunk("fmt ", waveFormat(1, 0, 48000, 16)) + sound), "unsupported number of channels (0)"},
      {waveFile(chunk("fmt ", waveFormat(1, 60000, 48000, 16)) + sound), "unsupported number of channels"},
      {waveFile(chunk("fmt ", waveFormat(1, 2, 0, 16)) + sound), "unsupported sample rate"},
      {waveFile(chunk("fmt ", waveFormat(1, 2, 4000000000, 16)) + sound), "unsupported sample rate"},
      {waveFile(chunk("fmt ", wrongFrameSize) + sound), "frame size"},
      {waveFile(chunk("fmt ", waveFormat(0xFFFE, 2, 48000, 16)) + sound), "extensible format chunk is too short"},
      {waveFile(chunk("fmt ", strangeSubformat) + sound), "unsupported subformat"},
  };
  MediaFolder folder;
  for (const Case& each : cases) {
    const auto reader = WAVReader::open(folder.write("sound.wav", each.bytes));

    ASSERT_FALSE(reader) << each.reason;
    EXPECT_THAT(reader.reason(), HasSubstr(each.reason));
  }
}

TEST(WAVReaderTest, ADataChunkThatClaimsTooMuchEndsWithTheFile) {
  MediaFolder folder;
  for (const std::uint32_t claimed : {0u, 1000u, 0xFFFFFFFFu}) {
    const auto path = folder.write("sound.wav", waveFile(chunk("fmt ", waveFormat(1, 2, 48000, 16)) + "data" +
                                                         littleEndian(claimed) + "abcdefgh12"));

    const auto reader = WAVReader::open(path);

    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->frameCount(), 2u);
  }
}

TEST(PCMTest, SamplesAreRoundedAndSaturatedInTheFormatsOrderOfBytes) {
  PCMShape shape;
  shape.channels = 1;
  const double tick = 1.0 / 32768;
  const std::vector<double> samples = {1, -1.5, 0.5 * tick, 1.5 * tick, -1.6 * tick, std::nan("")};

  EXPECT_THAT(written(samples, describePCM(shape)), ElementsAre(0xFF, 0x7F, 0, 0x80, 0, 0, 2, 0, 0xFE, 0xFF, 0, 0));
  shape.isBigEndian = true;
  EXPECT_THAT(written(samples, describePCM(shape)), ElementsAre(0x7F, 0xFF, 0x80, 0, 0, 0, 0, 2, 0xFF, 0xFE, 0, 0));
  shape.bitsPerSample = 8;
  shape.isUnsigned = true;
  EXPECT_THAT(written({1, -1, 0}, describePCM(shape)), ElementsAre(255, 0, 128));
}

TEST(PCMTest, PlanarFormatsHaveAPlaneForEachChannel) {
  PCMShape shape;
  shape.bitsPerSample = 8;
  shape.isPlanar = true;
  const auto format = describePCM(shape);
  ASSERT_EQ(bufferCount(format), 2u);
  std::uint8_t planes[2][3] = {};
  struct {
    AudioBufferList list;
    AudioBuffer second;
  } buffers{{2, {{1, 3, planes[0]}}}, {1, 3, planes[1]}};

  writeSamples(std::vector<double>{0, 0.5, 0.25, -0.5, -0.25, 0}, format, buffers.list);

  EXPECT_THAT(planes[0], ElementsAre(0, 32, 0xE0));
  EXPECT_THAT(planes[1], ElementsAre(64, 0xC0, 0));
}

TEST(ToneTest, IsTheSameAfterDaysAsAtTheStart) {
  const Tone tone(997, -6);
  const double rate = 44100;
  const std::uint64_t twoDays = 2ull * 86400 * 44100;

  for (std::uint64_t i = 0; i < 1000; ++i) {
    const double expected = std::pow(10, -0.3) * std::sin(2 * std::numbers::pi * 997 * static_cast<double>(i) / rate);
    EXPECT_NEAR(tone.sampleAt(i, rate), expected, 1e-11);
    EXPECT_EQ(tone.sampleAt(twoDays + i, rate), tone.sampleAt(i, rate));
  }
}

}  // namespace
}  // namespace hardware::simulated

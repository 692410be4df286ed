// WAVE files and PCM samples.

#include <gmock/gmock.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "simulated/PCM.h"
#include "simulated/WAVReader.h"
#include "support/MediaFiles.h"
#include "support/TemporaryFolder.h"

namespace hardware::simulated {
namespace {

using testing::ElementsAre;

std::string extensible(std::uint16_t code, std::uint16_t channels, std::uint16_t bits, std::uint32_t speakers) {
  static const std::string suffix("\0\0\0\0\x10\0\x80\0\0\xAA\0\x38\x9B\x71", 14);
  return waveFormat(0xFFFE, channels, 48000, bits) + littleEndian(std::uint16_t{22}) + littleEndian(bits) +
         littleEndian(speakers) + littleEndian(code) + suffix;
}

/// The samples in the format's bytes, plane by plane where it has two.
std::string written(const std::vector<double>& samples, const AudioStreamBasicDescription& format) {
  const std::uint32_t planes = bufferCount(format);
  const auto size = static_cast<UInt32>(samples.size()) / format.mChannelsPerFrame * format.mBytesPerFrame;
  std::string bytes(std::size_t{planes} * size, '\0');
  struct {
    AudioBufferList list;
    AudioBuffer second;
  } buffers{{planes, {{format.mChannelsPerFrame / planes, size, bytes.data()}}}, {1, size, bytes.data() + size}};
  writeSamples(samples, format, buffers.list);
  return bytes;
}

TEST(WAVReaderTest, SamplesComeOutAgainByteForByteInEveryFormat) {
  const std::pair<std::string, AudioChannelLayoutTag> cases[] = {
      {waveFormat(1, 1, 8000, 8), kAudioChannelLayoutTag_Mono},
      {waveFormat(1, 2, 44100, 16), kAudioChannelLayoutTag_Stereo},
      {waveFormat(1, 3, 48000, 24), kAudioChannelLayoutTag_Unknown},
      {waveFormat(1, 2, 192000, 32), kAudioChannelLayoutTag_Stereo},
      {waveFormat(3, 2, 48000, 32) + littleEndian(std::uint16_t{0}), kAudioChannelLayoutTag_Stereo},
      {extensible(1, 6, 24, 0x3F), kAudioChannelLayoutTag_MPEG_5_1_A},
      {extensible(3, 4, 32, 0x33), kAudioChannelLayoutTag_Quadraphonic},
  };
  TemporaryFolder folder;
  std::mt19937 random(1);
  for (const auto& [format, layout] : cases) {
    const auto channels = static_cast<std::size_t>(format[2]);
    std::string data(240 * static_cast<std::size_t>(format[12]), '\0');
    for (char& byte : data) byte = static_cast<char>(random() & 0xBF);  // neither infinite nor no number as floats
    // An odd chunk in front, so that the padding byte matters.
    auto reader = WAVReader::open(folder.write(
        "sound.wav", chunk("RIFF", "WAVE" + chunk("note", "x") + chunk("fmt ", format) + chunk("data", data))));
    ASSERT_TRUE(reader && !reader->isCutOff());
    std::vector<double> samples(240 * channels);
    EXPECT_EQ(reader->read(0, std::span(samples).first(100 * channels)), 100u);
    EXPECT_EQ(reader->read(100, std::span(samples).subspan(100 * channels)), 140u);
    EXPECT_EQ(reader->read(240, samples), 0u);

    EXPECT_EQ(written(samples, reader->format().stream), data);
    EXPECT_EQ(reader->format().layout, layout);
  }
}

TEST(WAVReaderTest, FilesThatCannotBePlayedAreRefusedAndCutOffOnesArePlayedToTheirEnd) {
  const std::string format = waveFormat(1, 2, 48000, 16), whole = waveFile(format, "abcdefgh12");
  std::string wrongFrameSize = format, strangeSubformat = extensible(1, 2, 16, 3);
  wrongFrameSize[12] = 3;
  strangeSubformat.back() = 'x';
  TemporaryFolder folder;
  const auto open = [&](const std::string& bytes) { return WAVReader::open(folder.write("sound.wav", bytes)); };
  for (const std::string& bytes :
       {chunk("RIFF", "WAVE" + chunk("data", "abcd") + chunk("fmt ", format)),
        waveFile(waveFormat(1, 2, 48000, 20), "abcdefgh"), waveFile(waveFormat(1, 0, 48000, 16), "abcd"),
        waveFile(wrongFrameSize, "abcdef"), waveFile(strangeSubformat, "abcd")}) {
    EXPECT_FALSE(open(bytes)) << testing::PrintToString(bytes);
  }
  EXPECT_THAT(open(waveFile(waveFormat(2, 2, 48000, 4), "abcd")).reason(),
              testing::HasSubstr("sound.wav: unsupported sample format (code 2, 4 bits)"));
  for (const std::uint32_t claimed : {0u, 1000u, 0xFFFFFFFFu}) {
    const auto reader = open(std::string(whole).replace(40, 4, littleEndian(claimed)));
    EXPECT_TRUE(reader && reader->frameCount() == 2u && reader->isCutOff()) << claimed;
  }
}

TEST(PCMTest, SamplesAreRoundedAndSaturatedInTheFormatsOrderOfBytes) {
  const double tick = 1.0 / 32768;
  PCMShape shape;
  shape.channels = 1;
  shape.isBigEndian = true;
  EXPECT_THAT(written({1, -1.5, 0.5 * tick, 1.5 * tick, std::nan("")}, describePCM(shape)),
              ElementsAre(0x7F, '\xFF', '\x80', 0, 0, 0, 0, 2, 0, 0));
  shape.bitsPerSample = 8;
  shape.isUnsigned = true;
  shape.channels = 2;
  shape.isPlanar = true;
  EXPECT_THAT(written({1, -1, 0, 0.5}, describePCM(shape)), ElementsAre('\xFF', '\x80', 0, '\xC0'));
}

}  // namespace
}  // namespace hardware::simulated

#include <gtest/gtest.h>

#include <numeric>

#include "Failure.h"
#include "TemporaryDirectory.h"
#include "WAVWriter.h"
#include "Y4MWriter.h"

namespace brvhost {
namespace {

std::string little(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i) & 0xFF);
  return text;
}

std::string textOf(const std::array<std::uint8_t, WAVHeaderBytes>& bytes) {
  return {bytes.begin(), bytes.end()};
}

const std::string FormatChunk = "fmt " + little(16, 4) + little(1, 2) + little(2, 2) + little(44'100, 4) +
                                little(176'400, 4) + little(4, 2) + little(16, 2);

TEST(Y4MWriterTest, WritesOddWidthsAndLeavesTheRowsPaddingOut) {
  const TemporaryDirectory directory;
  constexpr std::size_t RowBytes = 16;  // 3 pixels take 8 bytes, the rest is padding
  std::uint8_t pixels[2 * RowBytes];
  std::iota(std::begin(pixels), std::end(pixels), std::uint8_t{'A'});

  Y4MWriter writer(OutputFile(directory.file("odd.y4m")), {3, 2, {30'000, 1'001}, {10, 11}});
  writer.writeFrame({pixels, RowBytes, 3, 2});
  writer.close();

  EXPECT_EQ(directory.contents("odd.y4m"),
            "YUV4MPEG2 W3 H2 F30000:1001 Ip A10:11 C422\n"
            "FRAME\n"
            "ACE"
            "QSU"
            "BF"
            "RV"
            "DH"
            "TX");
}

TEST(Y4MWriterTest, KeepsAnUnknownRateAndShapeAsUnknown) {
  EXPECT_EQ(y4mHeader({1'920, 1'080, {}, {}}), "YUV4MPEG2 W1920 H1080 F0:0 Ip A0:0 C422\n");
}

TEST(Y4MWriterTest, RefusesAPictureOfAnotherSizeAndKeepsTheFileWhole) {
  const TemporaryDirectory directory;
  const std::vector<std::uint8_t> pixels(64);
  Y4MWriter writer(OutputFile(directory.file("clip.y4m")), {2, 1, {25, 1}, {1, 1}});
  writer.writeFrame({pixels.data(), 4, 2, 1});
  const std::string before = directory.contents("clip.y4m");

  EXPECT_THROW(writer.writeFrame({pixels.data(), 8, 4, 1}), Failure);

  EXPECT_EQ(directory.contents("clip.y4m"), before);
  EXPECT_EQ(writer.frameCount(), 1);
}

TEST(WAVWriterTest, WritesTheHeaderThatReadersExpect) {
  const std::string small = "RIFF" + little(72 + 400, 4) + "WAVE" + "JUNK" + little(28, 4) + std::string(28, '\0') +
                            FormatChunk + "data" + little(400, 4);
  EXPECT_EQ(textOf(wavHeader({}, 400)), small);
}

TEST(WAVWriterTest, BecomesRF64WhereASizeNoLongerFits) {
  constexpr std::uint64_t LastSmall = 0xFFFF'FFFFULL - 72 - 3;
  EXPECT_EQ(textOf(wavHeader({}, LastSmall)).substr(0, 4), "RIFF");

  const std::uint64_t data = LastSmall + 4;
  const std::string wide = "RF64" + little(0xFFFF'FFFF, 4) + "WAVE" + "ds64" + little(28, 4) + little(data + 72, 8) +
                           little(data, 8) + little(data / 4, 8) + little(0, 4) + FormatChunk + "data" +
                           little(0xFFFF'FFFF, 4);
  EXPECT_EQ(textOf(wavHeader({}, data)), wide);
}

TEST(WAVWriterTest, KeepsTheSizesOfAnUnfinishedFileWithinASecondOfTheTruth) {
  const TemporaryDirectory directory;
  const std::vector<std::uint8_t> half(88'200, 7);
  WAVWriter writer(OutputFile(directory.file("sound.wav")), {});

  writer.write(half.data(), half.size());
  EXPECT_EQ(directory.contents("sound.wav").substr(0, WAVHeaderBytes), textOf(wavHeader({}, 0)));
  writer.write(half.data(), half.size());
  EXPECT_EQ(directory.contents("sound.wav").substr(0, WAVHeaderBytes), textOf(wavHeader({}, 176'400)));
  writer.write(half.data(), half.size());
  writer.close();

  EXPECT_EQ(directory.contents("sound.wav"), textOf(wavHeader({}, 264'600)) + std::string(264'600, 7));
  EXPECT_EQ(writer.frameCount(), 66'150);
}

TEST(WAVWriterTest, RefusesSoundThatItCannotDescribe) {
  const TemporaryDirectory directory;
  for (const PCMFormat& format : {PCMFormat{0, 2, 16}, PCMFormat{44'100, 0, 16}, PCMFormat{44'100, 2, 24}}) {
    EXPECT_THROW(WAVWriter(OutputFile(directory.file("sound.wav")), format), Failure);
  }
}

TEST(OutputFileTest, NamesTheFileAndTheReasonWhenTheDiskIsFull) {
  OutputFile file("/dev/full");
  try {
    file.write("x", 1);
    FAIL() << "a full disk went unnoticed";
  } catch (const Failure& failure) {
    EXPECT_STREQ(failure.what(), "cannot write to /dev/full: No space left on device");
    EXPECT_EQ(failure.exitCode(), ExitFailed);
  }
}

}  // namespace
}  // namespace brvhost

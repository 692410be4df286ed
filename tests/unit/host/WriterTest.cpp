#include <gtest/gtest.h>

#include "Failure.h"
#include "TemporaryDirectory.h"
#include "WAVWriter.h"

namespace brvhost {
namespace {

std::string little(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i) & 0xFF);
  return text;
}

std::string headerOf(std::uint64_t dataBytes) {
  const auto bytes = wavHeader({}, dataBytes);
  return {bytes.begin(), bytes.end()};
}

TEST(WAVWriterTest, WritesTheHeaderThatReadersExpectAndBecomesRF64WhereASizeNoLongerFits) {
  const std::string format = "fmt " + little(16, 4) + little(1, 2) + little(2, 2) + little(44'100, 4) +
                             little(176'400, 4) + little(4, 2) + little(16, 2) + "data";
  constexpr std::uint64_t LastSmall = 0xFFFF'FFFFULL - 72 - 3;
  for (const std::uint64_t data : {std::uint64_t{400}, LastSmall}) {
    EXPECT_EQ(headerOf(data), "RIFF" + little(72 + data, 4) + "WAVE" + "JUNK" + little(28, 4) + std::string(28, '\0') +
                                  format + little(data, 4));
  }

  constexpr std::uint64_t Large = LastSmall + 4;
  EXPECT_EQ(headerOf(Large), "RF64" + little(0xFFFF'FFFF, 4) + "WAVE" + "ds64" + little(28, 4) + little(Large + 72, 8) +
                                 little(Large, 8) + little(Large / 4, 8) + little(0, 4) + format +
                                 little(0xFFFF'FFFF, 4));
}

TEST(WAVWriterTest, KeepsTheSizesOfAnUnfinishedFileWithinASecondOfTheTruth) {
  const TemporaryDirectory directory;
  const std::vector<std::uint8_t> half(88'200, 7);
  WAVWriter writer(OutputFile(directory.file("sound.wav")), {});

  for (const std::uint64_t stated : {0, 176'400, 176'400}) {
    writer.write(half.data(), half.size());
    EXPECT_EQ(directory.contents("sound.wav").substr(0, WAVHeaderBytes), headerOf(stated));
  }
  writer.close();

  EXPECT_EQ(directory.contents("sound.wav"), headerOf(264'600) + std::string(264'600, 7));
}

TEST(WAVWriterTest, RefusesSoundThatItCannotDescribe) {
  const TemporaryDirectory directory;
  for (const PCMFormat& format : {PCMFormat{0, 2, 16}, PCMFormat{44'100, 0, 16}, PCMFormat{44'100, 2, 24}}) {
    EXPECT_THROW(WAVWriter(OutputFile(directory.file("sound.wav")), format), Failure);
  }
}

}  // namespace
}  // namespace brvhost

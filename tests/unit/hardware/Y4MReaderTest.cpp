#include "simulated/Y4MReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "MediaFiles.h"

namespace hardware::simulated {
namespace {

using testing::HasSubstr;

Y4MHeader headerOf(std::int32_t width, std::int32_t height, Chroma chroma) {
  Y4MHeader header;
  header.width = width;
  header.height = height;
  header.chroma = chroma;
  return header;
}

std::vector<std::uint8_t> randomFrame(const Y4MHeader& header) {
  std::mt19937 random(static_cast<unsigned>(header.width * 131 + header.height));
  std::vector<std::uint8_t> frame(header.frameSize());
  for (auto& byte : frame) byte = static_cast<std::uint8_t>(random());
  return frame;
}

std::vector<std::uint8_t> packed(const Y4MHeader& header, const std::vector<std::uint8_t>& frame) {
  const std::size_t bytesPerRow = (static_cast<std::size_t>(header.width) + 1) / 2 * 4;
  // Not a byte more than the rows take, so that the sanitizer sees any write beyond them.
  std::vector<std::uint8_t> rows(bytesPerRow * static_cast<std::size_t>(header.height));
  packFrame(header, frame.data(), rows.data(), bytesPerRow);
  return rows;
}

TEST(Y4MReaderTest, FourTwoTwoSamplesGoThroughUnchangedAtEveryWidth) {
  for (std::int32_t width = 1; width <= 50; ++width) {
    const Y4MHeader header = headerOf(width, 3, Chroma::yuv422);
    const auto frame = randomFrame(header);

    const auto rows = packed(header, frame);

    const auto w = static_cast<std::size_t>(width);
    const std::size_t pairs = (w + 1) / 2;
    for (std::size_t y = 0; y < 3; ++y) {
      for (std::size_t x = 0; x < w; ++x) {
        const std::uint8_t* pair = &rows[(y * pairs + x / 2) * 4];
        ASSERT_EQ(pair[x % 2 * 2], frame[y * w + x]) << width;
        ASSERT_EQ(pair[1], frame[3 * w + y * pairs + x / 2]) << width;
        ASSERT_EQ(pair[3], frame[3 * w + 3 * pairs + y * pairs + x / 2]) << width;
      }
    }
  }
}

TEST(Y4MReaderTest, MissingChromaIsTakenFromItsNeighbours) {
  struct Case {
    const char* what;
    Chroma chroma;
    bool isInterlaced;
    std::int32_t width, height;
    std::vector<std::uint8_t> chromaBytes;  // Cb, then Cr
    std::vector<int> cbOfRows;              // of the first pair
    std::vector<int> crOfRows;
  };
  const Case cases[] = {
      {"4:2:0 doubles rows", Chroma::yuv420, false, 2, 5, {10, 20, 30, 1, 2, 3}, {10, 10, 20, 20, 30}, {1, 1, 2, 2, 3}},
      {"fields keep to themselves",
       Chroma::yuv420,
       true,
       2,
       6,
       {10, 20, 30, 1, 2, 3},
       {10, 20, 10, 20, 30, 30},
       {1, 2, 1, 2, 3, 3}},
      {"4:4:4 averages pairs", Chroma::yuv444, false, 2, 1, {10, 13, 100, 101}, {12}, {101}},
      {"an odd column stands alone", Chroma::yuv444, false, 1, 1, {10, 100}, {10}, {100}},
      {"mono is neutral", Chroma::none, false, 2, 2, {}, {128, 128}, {128, 128}},
  };
  for (const Case& each : cases) {
    Y4MHeader header = headerOf(each.width, each.height, each.chroma);
    header.isInterlaced = each.isInterlaced;
    std::vector<std::uint8_t> frame(static_cast<std::size_t>(each.width * each.height), 77);
    frame.insert(frame.end(), each.chromaBytes.begin(), each.chromaBytes.end());
    ASSERT_EQ(frame.size(), header.frameSize()) << each.what;

    const auto rows = packed(header, frame);

    for (std::size_t y = 0; y < each.cbOfRows.size(); ++y) {
      EXPECT_EQ(rows[y * 4], 77) << each.what;
      EXPECT_EQ(rows[y * 4 + 1], each.cbOfRows[y]) << each.what << ", row " << y;
      EXPECT_EQ(rows[y * 4 + 3], each.crOfRows[y]) << each.what << ", row " << y;
    }
  }
}

TEST(Y4MReaderTest, HeadersThatCannotBePlayedSayWhy) {
  struct Case {
    const char* bytes;
    const char* reason;
  };
  const Case cases[] = {
      {"", "not a Y4M file"},
      {"YUV4MPEG3 W2 H2 F25:1\n", "not a Y4M file"},
      {"YUV4MPEG2W2 H2 F25:1\n", "not a Y4M file"},
      {"YUV4MPEG2 W2 H2 F25:1", "no end"},
      {"YUV4MPEG2 H2 F25:1\n", "no picture size"},
      {"YUV4MPEG2 W0 H2 F25:1\n", "bad picture size 'W0'"},
      {"YUV4MPEG2 W-2 H2 F25:1\n", "bad picture size"},
      {"YUV4MPEG2 W2 H99999999999999999999 F25:1\n", "bad picture size"},
      {"YUV4MPEG2 W16384 H16384 F25:1\nFRAME\n", "whole frame"},
      {"YUV4MPEG2 W2 H2\n", "no frame rate"},
      {"YUV4MPEG2 W2 H2 F0:0\n", "bad frame rate"},
      {"YUV4MPEG2 W2 H2 F25\n", "bad frame rate"},
      {"YUV4MPEG2 W2 H2 F1000000:1\n", "bad frame rate"},
      {"YUV4MPEG2 W2 H2 F25:1 A1:0\n", "bad pixel aspect"},
      {"YUV4MPEG2 W2 H2 F25:1 C420p10\n", "unsupported chroma format '420p10'"},
      {"YUV4MPEG2 W2 H2 F25:1 C411\n", "unsupported chroma"},
      {"YUV4MPEG2 W2 H2 F25:1 Im\n", "mixed interlacing"},
      {"YUV4MPEG2 W2 H2 F25:1\n", "whole frame"},
      {"YUV4MPEG2 W2 H2 F25:1\nFRAME\n12345", "whole frame"},
      {"YUV4MPEG2 W2 H2 F25:1\nFRAMA\n123456", "whole frame"},
  };
  MediaFolder folder;
  for (const Case& each : cases) {
    const std::string path = folder.write("clip.y4m", each.bytes);

    const auto reader = Y4MReader::open(path);

    ASSERT_FALSE(reader) << each.bytes;
    EXPECT_THAT(reader.reason(), HasSubstr(path + ": ")) << each.bytes;
    EXPECT_THAT(reader.reason(), HasSubstr(each.reason)) << each.bytes;
  }
}

TEST(Y4MReaderTest, EndsCleanlyWhereTheClipIsCutOff) {
  MediaFolder folder;
  const std::string clip = smallClip(3);
  struct Case {
    std::string bytes;
    int frames;
  };
  const Case cases[] = {
      {clip, 3},           {clip.substr(0, clip.size() - 1), 2},     {clip.substr(0, clip.size() - 19), 2},
      {clip + "FRAME", 3}, {clip + "FRAME Ip\n0123456789abcdef", 4}, {clip + std::string(300, 'F'), 3},
  };
  for (const Case& each : cases) {
    auto reader = Y4MReader::open(folder.write("clip.y4m", each.bytes));
    ASSERT_TRUE(reader);

    for (int pass = 0; pass < 2; ++pass, reader->rewind()) {
      int frames = 0;
      while (reader->nextFrame()) ++frames;
      EXPECT_EQ(frames, each.frames);
    }
  }
}

TEST(Y4MReaderTest, NoMutationOfAClipDoesHarm) {
  MediaFolder folder;
  std::mt19937 random(7);
  for (int i = 0; i < 400; ++i) {
    std::string clip = smallClip(2);
    for (int changes = 0; changes < 3; ++changes) clip[random() % 60] = static_cast<char>(random());
    auto reader = Y4MReader::open(folder.write("clip.y4m", clip));
    if (!reader) continue;

    int frames = 0;
    while (reader->nextFrame()) ++frames;

    EXPECT_LE(frames, 16);
  }
}

TEST(Y4MReaderTest, AFrameThatHasGoneFromTheFileIsBlack) {
  MediaFolder folder;
  const std::string path = folder.write("clip.y4m", smallClip(2));
  auto reader = Y4MReader::open(path);
  ASSERT_TRUE(reader && reader->nextFrame() && reader->nextFrame());
  CVPixelBufferRef buffer = nullptr;
  ASSERT_EQ(CVPixelBufferCreate(nullptr, 4, 2, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer), 0);
  CVPixelBufferLockBaseAddress(buffer, 0);
  const auto* pixels = static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(buffer));

  reader->drawInto(buffer);
  EXPECT_EQ(pixels[0], 1);
  std::filesystem::resize_file(path, 40);
  reader->drawInto(buffer);

  EXPECT_EQ(pixels[0], 16);
  EXPECT_EQ(pixels[1], 128);
  EXPECT_FALSE(reader->nextFrame());
  CVPixelBufferUnlockBaseAddress(buffer, 0);
  CVPixelBufferRelease(buffer);
}

}  // namespace
}  // namespace hardware::simulated

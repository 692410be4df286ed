#include "simulated/Y4MReader.h"

#include <gmock/gmock.h>

#include <vector>

#include "support/MediaFiles.h"
#include "support/Samples.h"
#include "support/TemporaryFolder.h"

namespace hardware::simulated {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes packed(std::int32_t width, std::int32_t height, Chroma chroma, const Bytes& frame, bool isInterlaced = false) {
  Y4MHeader header;
  header.width = width;
  header.height = height;
  header.chroma = chroma;
  header.isInterlaced = isInterlaced;
  EXPECT_EQ(frame.size(), header.frameSize());
  const std::size_t bytesPerRow = (static_cast<std::size_t>(width) + 1) / 2 * 4;
  // Not a byte more than the rows take, so that the sanitizer sees any write beyond them.
  Bytes rows(bytesPerRow * static_cast<std::size_t>(height));
  packFrame(header, frame.data(), rows.data(), bytesPerRow);
  return rows;
}

TEST(Y4MReaderTest, MissingChromaIsTakenFromItsNeighbours) {
  EXPECT_EQ(packed(2, 3, Chroma::yuv420, {7, 7, 7, 7, 7, 7, 10, 20, 1, 2}),
            Bytes({7, 10, 7, 1, 7, 10, 7, 1, 7, 20, 7, 2}));
  EXPECT_EQ(packed(1, 5, Chroma::yuv420, {7, 7, 7, 7, 7, 10, 20, 30, 1, 2, 3}, true),
            Bytes({7, 10, 7, 1, 7, 20, 7, 2, 7, 10, 7, 1, 7, 20, 7, 2, 7, 30, 7, 3}));
  EXPECT_EQ(packed(3, 1, Chroma::yuv444, {7, 7, 7, 10, 13, 20, 100, 101, 50}), Bytes({7, 12, 7, 101, 7, 20, 7, 50}));
  EXPECT_EQ(packed(2, 1, Chroma::none, {7, 7}), Bytes({7, 128, 7, 128}));
  // Other widths for the sanitizer: that they come out right shows in a recording.
  for (std::size_t width = 1; width <= 50; ++width) {
    packed(static_cast<std::int32_t>(width), 1, Chroma::yuv422, Bytes(width + (width + 1) / 2 * 2));
  }
}

TEST(Y4MReaderTest, HeadersThatCannotBePlayedAreRefusedAndClipsThatAreCutOffEndCleanly) {
  TemporaryFolder folder;
  const auto open = [&](const std::string& bytes) { return Y4MReader::open(folder.write("clip.y4m", bytes)); };
  for (const std::string header : {" H2 F25:1", " W-2 H2 F25:1", " W2 H3 F25:1", " W16384 H16384 F25:1", " W2 H2 F0:0",
                                   " W2 H2 F25:1 C411", " W2 H2 F25:1 Im"}) {
    EXPECT_FALSE(open("YUV4MPEG2" + header + "\nFRAME\n123456")) << header;
  }
  EXPECT_THAT(open("YUV4MPEG2 W2 H2 F25:1 C420p10\nFRAME\n").reason(),
              testing::HasSubstr("clip.y4m: unsupported chroma format '420p10'"));

  const std::string clip = smallClip(3);
  const std::pair<std::string, int> cases[] = {
      {clip.substr(0, clip.find('\n')), 0},     {clip.substr(0, clip.size() - 1), 2},
      {clip.substr(0, clip.size() - 19), 2},    {clip + "FRAME", 3},
      {clip + "FRAME Ip\n0123456789abcdef", 4}, {clip + std::string(300, 'F'), 3}};
  for (const auto& [bytes, expected] : cases) {
    auto reader = open(bytes);
    int frames = 0;
    while (reader && reader->nextFrame()) ++frames;
    EXPECT_EQ(frames, expected) << bytes;
    EXPECT_EQ(reader && reader->isCutOff(), expected == 2 || expected == 3) << bytes;
  }

  auto reader = open(clip);
  ASSERT_TRUE(reader && reader->nextFrame() && reader->nextFrame());
  const auto picture = samples::picture(4, 2);
  CVPixelBufferLockBaseAddress(picture.get(), 0);
  auto* const rows = static_cast<std::uint8_t*>(CVPixelBufferGetBaseAddress(picture.get()));
  const std::size_t bytesPerRow = CVPixelBufferGetBytesPerRow(picture.get());
  const auto row = [&](std::size_t y) { return Bytes(rows + y * bytesPerRow, rows + y * bytesPerRow + 9); };
  std::fill_n(rows, bytesPerRow * 2, std::uint8_t{9});
  reader->drawInto(picture.get());
  EXPECT_EQ(row(0), row(1));
  EXPECT_EQ(row(1), Bytes({1, 1, 1, 1, 1, 1, 1, 1, 9}));
  folder.write("clip.y4m", clip.substr(0, clip.find("FRAME") + 6));
  reader->drawInto(picture.get());
  EXPECT_EQ(row(0), row(1));
  EXPECT_EQ(row(1), Bytes({16, 128, 16, 128, 16, 128, 16, 128, 9})) << "black, as the frame has gone";
}

}  // namespace
}  // namespace hardware::simulated

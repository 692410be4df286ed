#include "simulated/TestPicture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace hardware::simulated {
namespace {

struct Rows {
  Rows(std::int32_t width, std::int32_t height)
      : bytesPerRow((static_cast<std::size_t>(width) + 1) / 2 * 4),
        bytes(bytesPerRow * static_cast<std::size_t>(height), 0xEE) {}

  std::size_t bytesPerRow;
  std::vector<std::uint8_t> bytes;
};

Rows freshPicture(std::int32_t width, std::int32_t height, std::uint32_t number) {
  Rows rows(width, height);
  TestPicture(width, height).draw(number, rows.bytes.data(), rows.bytesPerRow);
  return rows;
}

TEST(TestPictureTest, DrawingWhatMovedGivesTheSamePictureAsDrawingAll) {
  const std::pair<std::int32_t, std::int32_t> sizes[] = {{1920, 1080}, {641, 361}, {1080, 1920}, {81, 13},
                                                         {160, 20},    {6000, 16}, {1, 1},       {3, 5},
                                                         {79, 100},    {100, 11},  {16, 4000}};
  const std::uint32_t numbers[] = {0,     1,        2,        9,         10,         99, 100, 31999,
                                   32000, 12345678, 99999999, 100000000, 0xFFFFFFFF, 5,  5};
  for (const auto& [width, height] : sizes) {
    TestPicture picture(width, height);
    Rows recycled(width, height);
    for (const std::uint32_t number : numbers) {
      picture.draw(number, recycled.bytes.data(), recycled.bytesPerRow);
      ASSERT_TRUE(recycled.bytes == freshPicture(width, height, number).bytes)
          << width << "x" << height << ", frame " << number;
      const auto expected = width < 80 || height < 12 ? std::nullopt : std::optional(number);
      EXPECT_EQ(readFrameNumber(recycled.bytes.data(), recycled.bytesPerRow, width, height), expected);
      EXPECT_TRUE(!expected || picture.fullRedraws() == 1);
    }
  }
}

}  // namespace
}  // namespace hardware::simulated

#include "simulated/TestPicture.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace hardware::simulated {
namespace {

TEST(TestPictureTest, DrawingWhatMovedGivesTheSamePictureAsDrawingAll) {
  const std::tuple<std::int32_t, std::int32_t, std::uint32_t> sizes[] = {
      {1920, 1080, 2582401504}, {641, 361, 599826416}, {81, 13, 3361389504}, {1, 1, 1840447136}, {79, 100, 3974738480}};
  const std::uint32_t numbers[] = {0, 1, 9, 10, 99, 100, 99, 12345678, 100000000, 0xFFFFFFFF, 0xFFFFFFFF};
  for (const auto& [width, height, known] : sizes) {
    const std::size_t bytesPerRow = (static_cast<std::size_t>(width) + 1) / 2 * 4;
    std::vector<std::uint8_t> recycled(bytesPerRow * static_cast<std::size_t>(height), 0xEE);
    TestPicture picture(width, height);
    std::uint32_t sum = 0;
    for (const std::uint32_t number : numbers) {
      std::vector<std::uint8_t> fresh(recycled.size(), 0xEE);
      TestPicture(width, height).draw(number, fresh.data(), bytesPerRow);
      picture.draw(number, recycled.data(), bytesPerRow);
      ASSERT_TRUE(recycled == fresh) << width << "x" << height << ", frame " << number;

      const auto expected = width < 80 || height < 12 ? std::nullopt : std::optional(number);
      EXPECT_EQ(readFrameNumber(recycled.data(), bytesPerRow, width, height), expected);
      for (const std::uint8_t byte : fresh) sum = (sum ^ byte) * 16777619;
    }
    EXPECT_EQ(sum, known) << width << "x" << height << " looks otherwise than it did";
  }
}

}  // namespace
}  // namespace hardware::simulated

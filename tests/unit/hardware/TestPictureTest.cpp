#include "simulated/TestPicture.h"

#include <gtest/gtest.h>

#include <functional>
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

struct PictureSize {
  std::int32_t width;
  std::int32_t height;
};

TEST(TestPictureTest, DrawingWhatMovedGivesTheSamePictureAsDrawingAll) {
  const PictureSize sizes[] = {{1920, 1080}, {1440, 1080}, {640, 480}, {641, 361},
                               {1080, 1920}, {81, 13},     {160, 20},  {6000, 16}};
  const std::uint32_t numbers[] = {0,     1,        2,        9,         10,         99, 100, 31999,
                                   32000, 12345678, 99999999, 100000000, 0xFFFFFFFF, 5,  5};
  for (const auto [width, height] : sizes) {
    TestPicture picture(width, height);
    Rows recycled(width, height);
    for (const std::uint32_t number : numbers) {
      picture.draw(number, recycled.bytes.data(), recycled.bytesPerRow);

      Rows fresh(width, height);
      TestPicture(width, height).draw(number, fresh.bytes.data(), fresh.bytesPerRow);
      ASSERT_TRUE(recycled.bytes == fresh.bytes) << width << "x" << height << ", frame " << number;
      EXPECT_EQ(readFrameNumber(fresh.bytes.data(), fresh.bytesPerRow, width, height), number);
    }
    EXPECT_EQ(picture.fullRedraws(), 1u) << width << "x" << height;
  }
}

TEST(TestPictureTest, PicturesTooSmallForNumbersAreDrawnAllTheSame) {
  for (const auto [width, height] : {PictureSize{1, 1}, {2, 2}, {3, 5}, {79, 100}, {100, 11}, {16, 4000}}) {
    TestPicture picture(width, height);
    Rows recycled(width, height);
    Rows fresh(width, height);

    picture.draw(1, recycled.bytes.data(), recycled.bytesPerRow);
    picture.draw(2, recycled.bytes.data(), recycled.bytesPerRow);
    TestPicture(width, height).draw(2, fresh.bytes.data(), fresh.bytesPerRow);

    EXPECT_TRUE(recycled.bytes == fresh.bytes) << width << "x" << height;
    EXPECT_EQ(readFrameNumber(fresh.bytes.data(), fresh.bytesPerRow, width, height), std::nullopt);
  }
}

TEST(TestPictureTest, ABufferThatIsNotWhatWasDrawnIsDrawnInFull) {
  const PictureSize size{640, 480};
  struct Case {
    const char* what;
    std::function<void(Rows&)> spoil;
  };
  const Case cases[] = {
      {"cleared", [](Rows& rows) { std::fill(rows.bytes.begin(), rows.bytes.end(), std::uint8_t{0}); }},
      {"its first bytes overwritten", [](Rows& rows) { std::fill_n(rows.bytes.begin(), 16, std::uint8_t{0xAA}); }},
      {"its last bytes overwritten", [](Rows& rows) { std::fill_n(rows.bytes.end() - 8, 8, std::uint8_t{0xAA}); }},
      {"a row's length overwritten in the middle",
       [](Rows& rows) { std::fill_n(rows.bytes.begin() + 200'001, rows.bytesPerRow, std::uint8_t{0xAA}); }},
      {"another frame drawn by another stream",
       [&](Rows& rows) { TestPicture(size.width, size.height).draw(77, rows.bytes.data(), rows.bytesPerRow); }},
  };
  for (const Case& each : cases) {
    TestPicture picture(size.width, size.height);
    Rows rows(size.width, size.height);
    Rows fresh(size.width, size.height);
    picture.draw(4, rows.bytes.data(), rows.bytesPerRow);

    each.spoil(rows);
    picture.draw(5, rows.bytes.data(), rows.bytesPerRow);

    TestPicture(size.width, size.height).draw(5, fresh.bytes.data(), fresh.bytesPerRow);
    EXPECT_TRUE(rows.bytes == fresh.bytes) << each.what;
    EXPECT_EQ(picture.fullRedraws(), 2u) << each.what;
  }
}

TEST(TestPictureTest, MoreBuffersThanAreRememberedStillShowTheRightFrames) {
  TestPicture picture(320, 240);
  std::vector<Rows> buffers(40, Rows(320, 240));

  for (std::uint32_t number = 0; number < 200; ++number) {
    Rows& rows = buffers[number * 7 % buffers.size()];
    picture.draw(number, rows.bytes.data(), rows.bytesPerRow);

    ASSERT_EQ(readFrameNumber(rows.bytes.data(), rows.bytesPerRow, 320, 240), number);
  }
}

}  // namespace
}  // namespace hardware::simulated

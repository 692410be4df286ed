#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include <random>

#include "Failure.h"
#include "PNGWriter.h"
#include "RGBImage.h"
#include "Repack.h"
#include "support/TemporaryFolder.h"

namespace brvhost {
namespace {

std::vector<std::uint8_t> randomBytes(std::size_t count) {
  std::minstd_rand random(20'240'611);
  std::vector<std::uint8_t> bytes(count);
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random() >> 8);
  return bytes;
}

TEST(RepackTest, AgreesWithAPlainLoopAtEveryWidth) {
  constexpr std::size_t Height = 3;
  for (std::size_t width = 1; width <= 70; ++width) {
    SCOPED_TRACE(width);
    const std::size_t rowBytes = yuvsRowBytes(width) + 12;
    const std::vector<std::uint8_t> pixels = randomBytes(rowBytes * Height);
    std::vector<std::uint8_t> expected;
    for (std::size_t y = 0; y < Height; ++y) {
      for (std::size_t x = 0; x < width; ++x) expected.push_back(pixels[y * rowBytes + 2 * x]);
    }
    for (const std::size_t chroma : {1U, 3U}) {
      for (std::size_t y = 0; y < Height; ++y) {
        for (std::size_t x = 0; x < width; x += 2) expected.push_back(pixels[y * rowBytes + 2 * x + chroma]);
      }
    }

    std::vector<std::uint8_t> planes(planarBytes(width, Height));
    repackPlanar({pixels.data(), rowBytes, width, Height}, planes.data());

    ASSERT_EQ(planes, expected);
  }
}

TEST(RGBImageTest, TurnsKnownColorsIntoRGB) {
  struct Color {
    const char* name;
    ColorMatrix matrix;
    std::uint8_t y, cb, cr;
    int red, green, blue;
  };
  const Color colors[] = {
      {"below black", ColorMatrix::bt709, 0, 128, 128, 0, 0, 0},
      {"above white", ColorMatrix::bt709, 255, 128, 128, 255, 255, 255},
      {"mid grey", customaryMatrix(576), 126, 128, 128, 128, 128, 128},
      {"red", customaryMatrix(720), 63, 102, 240, 255, 0, 0},
      {"green", ColorMatrix::bt709, 173, 42, 26, 0, 255, 0},
      {"blue", ColorMatrix::bt709, 32, 240, 118, 0, 0, 255},
      {"red, old matrix", customaryMatrix(576), 81, 90, 240, 255, 0, 0},
      {"green, old matrix", ColorMatrix::bt601, 145, 54, 34, 0, 255, 0},
      {"blue, old matrix", ColorMatrix::bt601, 41, 240, 110, 0, 0, 255},
  };
  for (const Color& color : colors) {
    const std::uint8_t pixels[] = {color.y, color.cb, color.y, color.cr};
    const RGBImage image = convertToRGB({pixels, sizeof pixels, 2, 1}, color.matrix);
    ASSERT_EQ(image.pixels.size(), 6U);
    for (const std::size_t first : {0U, 3U}) {
      EXPECT_NEAR(image.pixels[first], color.red, 2) << color.name;  // 8-bit codes of pure colours are off by that
      EXPECT_NEAR(image.pixels[first + 1], color.green, 2) << color.name;
      EXPECT_NEAR(image.pixels[first + 2], color.blue, 2) << color.name;
    }
  }
}

TEST(RGBImageTest, MixesTheChromaOfNeighboursOnlyBetweenThem) {
  // Three grey pixels, the last on its own in its pair, with a step in Cb from 128 to 160.
  const std::uint8_t pixels[] = {126, 128, 126, 128, 126, 160, 0, 128};

  const RGBImage image = convertToRGB({pixels, sizeof pixels, 3, 1}, ColorMatrix::bt601);

  EXPECT_EQ(image.pixels[2], 128);
  EXPECT_NEAR(image.pixels[5], 128 + 65 / 2, 1);
  EXPECT_NEAR(image.pixels[8], 128 + 65, 1);
}

TEST(RGBImageTest, StretchesTheWidthToSquarePixels) {
  const RGBImage steps{2, 1, {0, 0, 0, 200, 100, 40}};
  EXPECT_THAT(withSquarePixels(steps, {2, 1}).pixels,
              testing::ElementsAre(0, 0, 0, 50, 25, 10, 150, 75, 30, 200, 100, 40));

  const RGBImage wide{1'440, 1, std::vector<std::uint8_t>(1'440 * 3, 9)};
  const std::pair<Rational, std::size_t> cases[] = {{{4, 3}, 1'920}, {{10, 11}, 1'309}, {{1, 1}, 1'440},
                                                    {{0, 0}, 1'440}, {{1, 100'000}, 1}, {{1'000, 1}, 65'535}};
  for (const auto& [aspect, width] : cases) {
    const RGBImage image = withSquarePixels(wide, aspect);
    EXPECT_EQ(image.width, width);
    EXPECT_EQ(image.pixels, std::vector<std::uint8_t>(width * 3, 9));
  }
}

TEST(PNGWriterTest, WritesWhatLibpngReadsBackAndRefusesWhatPNGCannotHold) {
  const TemporaryFolder directory;
  const RGBImage image{7, 5, randomBytes(7 * 5 * 3)};

  writePNG(directory.file("picture.png"), image);

  png_image read = {};
  read.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&read, directory.file("picture.png").c_str()), 0) << read.message;
  EXPECT_EQ(read.width, 7U);
  std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(read));
  ASSERT_NE(png_image_finish_read(&read, nullptr, pixels.data(), 0, nullptr), 0) << read.message;
  EXPECT_EQ(pixels, image.pixels);
  EXPECT_THROW(encodePNG({4, 4, std::vector<std::uint8_t>(5)}), Failure);
  EXPECT_THROW(encodePNG({2'000'000, 1, std::vector<std::uint8_t>(6'000'000)}), Failure);  // libpng itself objects
}

}  // namespace
}  // namespace brvhost

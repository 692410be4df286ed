#include <gmock/gmock.h>

#include <cstdio>  // jpeglib.h needs FILE

#include <jpeglib.h>

#include "common/Failure.h"
#include "picture/ImageFile.h"

namespace brvhost {
namespace {

using testing::ElementsAre;

TEST(RGBImageTest, TurnsKnownColorsIntoRGB) {
  const struct {
    const char* name;
    CFStringRef attached;
    std::size_t height;
    std::uint8_t y, cb, cr;
    int red, green, blue;
  } colors[] = {
      {"below black", kCVImageBufferYCbCrMatrix_ITU_R_709_2, 480, 0, 128, 128, 0, 0, 0},
      {"above white", kCVImageBufferYCbCrMatrix_ITU_R_709_2, 480, 255, 128, 128, 255, 255, 255},
      {"mid grey", nullptr, 576, 126, 128, 128, 128, 128, 128},
      {"red", nullptr, 720, 63, 102, 240, 255, 0, 0},
      {"green", kCVImageBufferYCbCrMatrix_ITU_R_709_2, 480, 173, 42, 26, 0, 255, 0},
      {"blue", kCVImageBufferYCbCrMatrix_ITU_R_709_2, 480, 32, 240, 118, 0, 0, 255},
      {"red, old matrix", nullptr, 576, 81, 90, 240, 255, 0, 0},
      {"green, old matrix", kCVImageBufferYCbCrMatrix_ITU_R_601_4, 1080, 145, 54, 34, 0, 255, 0},
      {"blue, old matrix", kCVImageBufferYCbCrMatrix_ITU_R_601_4, 1080, 41, 240, 110, 0, 0, 255},
      {"red, SMPTE 240M", kCVImageBufferYCbCrMatrix_SMPTE_240M_1995, 1080, 62, 102, 240, 255, 0, 0},
      {"red, BT.2020", kCVImageBufferYCbCrMatrix_ITU_R_2020, 1080, 74, 97, 240, 255, 0, 0},
  };
  for (const auto& [name, attached, height, y, cb, cr, red, green, blue] : colors) {
    CVPixelBufferRef buffer = nullptr;
    CVPixelBufferCreate(kCFAllocatorDefault, 2, height, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer);
    if (attached) {
      CVBufferSetAttachment(buffer, kCVImageBufferYCbCrMatrixKey, attached, kCVAttachmentMode_ShouldPropagate);
    }
    const ColorMatrix matrix = colorMatrix(buffer);
    CVPixelBufferRelease(buffer);
    const std::uint8_t pixels[] = {y, cb, y, cr};
    const auto is = [](int value) { return testing::AllOf(testing::Ge(value - 2), testing::Le(value + 2)); };
    EXPECT_THAT(convertToRGB({pixels, sizeof pixels, 2, 1}, matrix).pixels,  // 8-bit codes of colours are that far off
                ElementsAre(is(red), is(green), is(blue), is(red), is(green), is(blue)))
        << name;
  }
  // The chroma of neighbours mixes only between them: three grey pixels with a step in Cb, the last alone in its pair.
  const std::uint8_t step[] = {126, 128, 126, 128, 126, 160, 0, 128};
  const RGBImage image = convertToRGB({step, sizeof step, 3, 1}, ColorMatrix::bt601);
  EXPECT_EQ(image.pixels[2], 128);
  EXPECT_NEAR(image.pixels[5], 128 + 65 / 2, 1);
  EXPECT_NEAR(image.pixels[8], 128 + 65, 1);
}

TEST(RGBImageTest, StretchesTheWidthToSquarePixels) {
  const RGBImage steps{2, 1, {0, 0, 0, 200, 100, 40}};
  EXPECT_THAT(withSquarePixels(steps, {2, 1}).pixels, ElementsAre(0, 0, 0, 50, 25, 10, 150, 75, 30, 200, 100, 40));

  const RGBImage wide{1'440, 1, std::vector<std::uint8_t>(1'440 * 3, 9)};
  const std::pair<Rational, std::size_t> cases[] = {{{4, 3}, 1'920}, {{10, 11}, 1'309}, {{1, 1}, 1'440},
                                                    {{0, 0}, 1'440}, {{1, 100'000}, 1}, {{1'000, 1}, 65'535}};
  for (const auto& [aspect, width] : cases) {
    EXPECT_EQ(withSquarePixels(wide, aspect).pixels, std::vector<std::uint8_t>(width * 3, 9));
  }
}

TEST(ImageFileTest, KeepsColoursInJPEGAndRefusesWhatHasNoPixels) {
  RGBImage image{32, 2, {}};
  for (int i = 0; i < 32; ++i) image.pixels.insert(image.pixels.end(), {250, 20, 60});
  for (int i = 0; i < 32; ++i) image.pixels.insert(image.pixels.end(), {10, 120, 230});
  const std::vector<std::uint8_t> bytes = encoded(image, imageFormatOf("a.JPEG"));

  jpeg_error_mgr errors;
  jpeg_decompress_struct codec;
  codec.err = jpeg_std_error(&errors);
  jpeg_create_decompress(&codec);
  jpeg_mem_src(&codec, bytes.data(), bytes.size());
  jpeg_read_header(&codec, TRUE);
  jpeg_start_decompress(&codec);
  std::vector<std::uint8_t> read(image.pixels.size());
  for (JSAMPROW row = read.data(); codec.output_scanline < 2; row += 96) jpeg_read_scanlines(&codec, &row, 1);
  jpeg_destroy_decompress(&codec);
  EXPECT_THAT(read, testing::Pointwise(testing::Truly([](const auto& pair) {
                                         return std::abs(std::get<0>(pair) - std::get<1>(pair)) <= 8;
                                       }),
                                       image.pixels));
  for (const char* path : {"a.png", "a.jpg"}) EXPECT_THROW(encoded({}, imageFormatOf(path)), Failure);
}

}  // namespace
}  // namespace brvhost

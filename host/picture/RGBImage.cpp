#include "picture/RGBImage.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace brvhost {

namespace {

constexpr int FractionBits = 16;
constexpr std::size_t LargestWidth = 65'535;

/// Factors with FractionBits of fraction. Chroma comes in twice its value, which keeps the half of a mean.
struct Factors {
  std::int32_t luma, redFromCr, greenFromCb, greenFromCr, blueFromCb;
};

constexpr std::int32_t fixed(double value) {
  return static_cast<std::int32_t>(value * (1 << FractionBits) + (value < 0 ? -0.5 : 0.5));
}

/// `red` and `blue` are the parts of the two in luma.
constexpr Factors makeFactors(double red, double blue) {
  constexpr double LumaRange = 255.0 / 219.0;
  constexpr double HalfChromaRange = 255.0 / 224.0 / 2;
  const double green = 1 - red - blue;
  return {fixed(LumaRange), fixed(2 * (1 - red) * HalfChromaRange),
          fixed(-2 * (1 - blue) * blue / green * HalfChromaRange),
          fixed(-2 * (1 - red) * red / green * HalfChromaRange), fixed(2 * (1 - blue) * HalfChromaRange)};
}

/// In the order of ColorMatrix.
constexpr Factors FactorsOf[] = {makeFactors(0.299, 0.114), makeFactors(0.2126, 0.0722), makeFactors(0.212, 0.087),
                                 makeFactors(0.2627, 0.0593)};

std::uint8_t rounded(std::int32_t value) {
  return static_cast<std::uint8_t>(std::clamp((value + (1 << (FractionBits - 1))) >> FractionBits, 0, 255));
}

void writePixel(const Factors& factors, int y, int twiceCb, int twiceCr, std::uint8_t* out) {
  const std::int32_t luma = (y - 16) * factors.luma;
  const std::int32_t cb = twiceCb - 256;
  const std::int32_t cr = twiceCr - 256;
  out[0] = rounded(luma + cr * factors.redFromCr);
  out[1] = rounded(luma + cb * factors.greenFromCb + cr * factors.greenFromCr);
  out[2] = rounded(luma + cb * factors.blueFromCb);
}

}  // namespace

ColorMatrix colorMatrix(CVPixelBufferRef picture) {
  const std::pair<CFStringRef, ColorMatrix> names[] = {
      {kCVImageBufferYCbCrMatrix_ITU_R_601_4, ColorMatrix::bt601},
      {kCVImageBufferYCbCrMatrix_ITU_R_709_2, ColorMatrix::bt709},
      {kCVImageBufferYCbCrMatrix_SMPTE_240M_1995, ColorMatrix::smpte240m},
      {kCVImageBufferYCbCrMatrix_ITU_R_2020, ColorMatrix::bt2020},
  };
  const CFTypeRef attached = CVBufferGetAttachment(picture, kCVImageBufferYCbCrMatrixKey, nullptr);
  for (const auto& [name, matrix] : names) {
    if (attached == name) return matrix;
  }
  return CVPixelBufferGetHeight(picture) >= 720 ? ColorMatrix::bt709 : ColorMatrix::bt601;
}

RGBImage convertToRGB(const PictureView& picture, ColorMatrix matrix) {
  const Factors& factors = FactorsOf[static_cast<std::size_t>(matrix)];
  RGBImage image{picture.width, picture.height, std::vector<std::uint8_t>(picture.width * picture.height * 3)};
  const std::size_t pairs = (picture.width + 1) / 2;
  std::uint8_t* out = image.pixels.data();
  for (std::size_t line = 0; line < picture.height; ++line) {
    const std::uint8_t* const row = picture.pixels + line * picture.rowBytes;
    for (std::size_t x = 0; x < picture.width; ++x) {
      const std::uint8_t* const here = row + x / 2 * 4;
      const std::uint8_t* const next = x % 2 == 1 && x / 2 + 1 < pairs ? here + 4 : here;
      writePixel(factors, row[2 * x], here[1] + next[1], here[3] + next[3], out);
      out += 3;
    }
  }
  return image;
}

RGBImage withSquarePixels(RGBImage image, Rational pixelAspect) {
  const double wanted = std::round(static_cast<double>(image.width) * pixelAspect.value());
  if (!pixelAspect.isKnown() || image.width == 0) return image;
  const auto width = static_cast<std::size_t>(std::clamp(wanted, 1.0, static_cast<double>(LargestWidth)));
  if (width == image.width) return image;

  RGBImage scaled{width, image.height, std::vector<std::uint8_t>(width * image.height * 3)};
  const double step = static_cast<double>(image.width) / static_cast<double>(width);
  for (std::size_t x = 0; x < width; ++x) {
    const double center =
        std::clamp((static_cast<double>(x) + 0.5) * step - 0.5, 0.0, static_cast<double>(image.width - 1));
    const auto left = static_cast<std::size_t>(center);
    const std::size_t right = std::min(left + 1, image.width - 1);
    const auto weight = static_cast<int>(std::lround((center - static_cast<double>(left)) * 256));
    for (std::size_t line = 0; line < image.height; ++line) {
      const std::uint8_t* const row = image.pixels.data() + line * image.width * 3;
      for (std::size_t channel = 0; channel < 3; ++channel) {
        const int mix = row[left * 3 + channel] * (256 - weight) + row[right * 3 + channel] * weight;
        scaled.pixels[(line * width + x) * 3 + channel] = static_cast<std::uint8_t>((mix + 128) >> 8);
      }
    }
  }
  return scaled;
}

}  // namespace brvhost

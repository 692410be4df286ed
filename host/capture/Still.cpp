#include "capture/Still.h"

#include <utility>

#include "capture/Sources.h"
#include "picture/ImageFile.h"

namespace brvhost {

namespace {

/// Each pixel the mean of a square of `factor` by `factor`.
RGBImage reducedBy(std::size_t factor, RGBImage image) {
  if (factor < 2 || image.height < factor) return image;
  RGBImage small{image.width / factor, image.height / factor, {}};
  small.pixels.reserve(small.width * small.height * 3);
  for (std::size_t i = 0; i < small.width * small.height * 3; ++i) {
    const std::size_t channel = i % 3, x = i / 3 % small.width * factor, y = i / 3 / small.width * factor;
    std::size_t sum = 0;
    for (std::size_t at = 0; at < factor * factor; ++at) {
      sum += image.pixels[((y + at / factor) * image.width + x + at % factor) * 3 + channel];
    }
    small.pixels.push_back(static_cast<std::uint8_t>(sum / (factor * factor)));
  }
  return small;
}

}  // namespace

std::vector<std::uint8_t> jpegOf(const brv::Frame& frame, std::size_t widest) {
  const brv::Pixels pixels = frame.pixels();
  RGBImage image =
      withSquarePixels(convertToRGB(viewOf(pixels), colorMatrix(frame.pixelBuffer())), pixelAspectOf(frame));
  const std::size_t factor = (image.width + widest - 1) / widest;
  return encoded(reducedBy(factor, std::move(image)), ImageFormat::jpeg);
}

}  // namespace brvhost

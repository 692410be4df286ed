#include "capture/Still.h"

#include <utility>

#include "capture/Sources.h"
#include "picture/ImageFile.h"

namespace brvhost {

namespace {

/// Each pixel the mean of a square of `factor` by `factor`.
RGBImage reducedBy(std::size_t factor, RGBImage image) {
  if (factor < 2 || image.width < factor || image.height < factor) return image;
  RGBImage small{image.width / factor, image.height / factor, {}};
  small.pixels.reserve(small.width * small.height * 3);
  const auto mean = [&](std::size_t x, std::size_t y, std::size_t channel) {
    std::size_t sum = 0;
    for (std::size_t line = y; line < y + factor; ++line) {
      for (std::size_t at = x; at < x + factor; ++at) sum += image.pixels[(line * image.width + at) * 3 + channel];
    }
    return static_cast<std::uint8_t>(sum / (factor * factor));
  };
  for (std::size_t y = 0; y < small.height; ++y) {
    for (std::size_t x = 0; x < small.width; ++x) {
      for (std::size_t channel = 0; channel < 3; ++channel)
        small.pixels.push_back(mean(x * factor, y * factor, channel));
    }
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

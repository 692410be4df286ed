#include "monitor/Preview.h"

#include <libyuv.h>

#include <algorithm>
#include <cmath>

#include "capture/Sources.h"
#include "common/Failure.h"
#include "picture/JPEGFile.h"

namespace brvhost {

namespace {

constexpr int Quality = 75;

const libyuv::YuvConstants& constantsOf(ColorMatrix matrix) {
  if (matrix == ColorMatrix::bt601) return libyuv::kYuvI601Constants;
  return matrix == ColorMatrix::bt2020 ? libyuv::kYuv2020Constants : libyuv::kYuvH709Constants;
}

/// Three planes in 4:2:2, one after the other.
struct Planes {
  Planes(std::vector<std::uint8_t>& memory, int pictureWidth, int pictureHeight)
      : width(pictureWidth), height(pictureHeight), chromaWidth((pictureWidth + 1) / 2) {
    const auto luma = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    const auto chroma = static_cast<std::size_t>(chromaWidth) * static_cast<std::size_t>(height);
    memory.resize(luma + 2 * chroma);
    y = memory.data();
    cb = y + luma;
    cr = cb + chroma;
  }

  int width, height, chromaWidth;
  std::uint8_t *y, *cb, *cr;
};

void scale(const Planes& from, const Planes& to) {
  libyuv::ScalePlane(from.y, from.width, from.width, from.height, to.y, to.width, to.width, to.height,
                     libyuv::kFilterBox);
  for (const auto plane : {&Planes::cb, &Planes::cr}) {
    libyuv::ScalePlane(from.*plane, from.chromaWidth, from.chromaWidth, from.height, to.*plane, to.chromaWidth,
                       to.chromaWidth, to.height, libyuv::kFilterBox);
  }
}

}  // namespace

std::string Preview::jpegOf(const brv::Frame& frame, std::size_t width) {
  const brv::Pixels pixels = frame.pixels();
  if (pixels.width() == 0 || pixels.height() == 0) throw Failure("a picture without pixels cannot be shown");
  const Planes whole(_planes, static_cast<int>(pixels.width()), static_cast<int>(pixels.height()));
  libyuv::YUY2ToI422(pixels.bytes().data(), static_cast<int>(pixels.rowBytes()), whole.y, whole.width, whole.cb,
                     whole.chromaWidth, whole.cr, whole.chromaWidth, whole.width, whole.height);

  const Rational aspect = pixelAspectOf(frame);
  const double shownWidth = whole.width * (aspect.isKnown() ? aspect.value() : 1), shownHeight = whole.height;
  const double most = static_cast<double>(width);
  const double factor = std::min({1.0, most / shownWidth, most * 0.75 / shownHeight});
  const auto side = [factor](double length) { return std::max(2, static_cast<int>(std::lround(length * factor))); };
  const Planes small(_scaled, side(shownWidth), side(shownHeight));
  scale(whole, small);

  _pixels.resize(std::size_t{4} * static_cast<std::size_t>(small.width) * static_cast<std::size_t>(small.height));
  libyuv::I422ToARGBMatrix(small.y, small.width, small.cb, small.chromaWidth, small.cr, small.chromaWidth,
                           _pixels.data(), 4 * small.width, &constantsOf(colorMatrix(frame.pixelBuffer())), small.width,
                           small.height);
  const JPEGFile file(
      {_pixels, static_cast<std::size_t>(small.width), static_cast<std::size_t>(small.height), 4, Quality, true});
  return {file.bytes().begin(), file.bytes().end()};
}

}  // namespace brvhost

#include "monitor/Preview.h"

#include <cstdio>  // jpeglib.h needs FILE

#include <jpeglib.h>
#include <libyuv.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdlib>

#include "capture/Sources.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr int Quality = 75;

/// A picture while libjpeg compresses it. Lives outside the function that libjpeg may jump back into.
struct Compression {
  jpeg_compress_struct codec{};
  jpeg_error_mgr errors{};
  std::jmp_buf failed;
  unsigned char* bytes = nullptr;
  unsigned long size = 0;

  Compression() = default;
  Compression(const Compression&) = delete;
  Compression& operator=(const Compression&) = delete;
  ~Compression() {
    jpeg_destroy_compress(&codec);
    std::free(bytes);
  }
};

[[noreturn]] void giveUp(j_common_ptr codec) {
  std::longjmp(static_cast<Compression*>(codec->client_data)->failed, 1);
}

/// Of pixels B G R and one that is not read. Holds no object with a destructor: errors leave it by longjmp.
bool compress(std::uint8_t* pixels, int width, int height, Compression& compression) {
  jpeg_compress_struct& codec = compression.codec;
  codec.err = jpeg_std_error(&compression.errors);
  compression.errors.error_exit = giveUp;
  codec.client_data = &compression;
  if (setjmp(compression.failed) != 0) return false;

  jpeg_create_compress(&codec);
  jpeg_mem_dest(&codec, &compression.bytes, &compression.size);
  codec.image_width = static_cast<JDIMENSION>(width);
  codec.image_height = static_cast<JDIMENSION>(height);
  codec.input_components = 4;
  codec.in_color_space = JCS_EXT_BGRX;
  jpeg_set_defaults(&codec);
  jpeg_set_quality(&codec, Quality, TRUE);
  codec.dct_method = JDCT_IFAST;
  jpeg_start_compress(&codec, TRUE);
  while (codec.next_scanline < codec.image_height) {
    JSAMPROW row = pixels + std::size_t{4} * codec.next_scanline * codec.image_width;
    jpeg_write_scanlines(&codec, &row, 1);
  }
  jpeg_finish_compress(&codec);
  return true;
}

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
  Compression compression;
  if (!compress(_pixels.data(), small.width, small.height, compression))
    throw Failure("a picture cannot be compressed");
  return {reinterpret_cast<const char*>(compression.bytes), compression.size};
}

}  // namespace brvhost

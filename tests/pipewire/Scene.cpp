#include "Scene.h"

#include <cmath>
#include <cstdio>  // jpeglib.h needs it
#include <cstdlib>

#include <jpeglib.h>

namespace test::pipewire {
namespace {

/// What a plane holds of each group of `pixels` x `rows`; y and Y are the luma of a group's first and second pixel.
struct Plane {
  const char* components;
  std::uint32_t pixels = 1, rows = 1;
};

struct Packing {
  std::uint32_t format;
  std::vector<Plane> planes;
  int tolerance = 0;        ///< in steps of 8 bits
  std::uint32_t block = 2;  ///< pixels a side of one colour
  bool isLumaFine = true;   ///< whether every pixel has a luma of its own
};

const Packing& packingOf(const Picture& picture) {
  static const std::vector<Packing> packings = {{SPA_VIDEO_FORMAT_YUY2, {{"yuYv", 2}}},
                                                {SPA_VIDEO_FORMAT_UYVY, {{"uyvY", 2}}},
                                                {SPA_VIDEO_FORMAT_I420, {{"y"}, {"u", 2, 2}, {"v", 2, 2}}},
                                                {SPA_VIDEO_FORMAT_YV12, {{"y"}, {"v", 2, 2}, {"u", 2, 2}}},
                                                {SPA_VIDEO_FORMAT_NV12, {{"y"}, {"uv", 2, 2}}},
                                                {SPA_VIDEO_FORMAT_NV21, {{"y"}, {"vu", 2, 2}}},
                                                {SPA_VIDEO_FORMAT_RGB, {{"rgb"}}, 2, 2, false},
                                                {SPA_VIDEO_FORMAT_BGR, {{"bgr"}}, 2, 2, false},
                                                {SPA_VIDEO_FORMAT_RGBx, {{"rgbx"}}, 2, 2, false},
                                                {SPA_VIDEO_FORMAT_BGRx, {{"bgrx"}}, 2, 2, false},
                                                {MotionJPEG, {{"yuv"}}, 3, 16, false}};
  for (const Packing& packing : packings) {
    if (packing.format == picture.packing) return packing;
  }
  std::abort();
}

struct Colour {
  int y, u, v;
};

/// Of a pixel. The first eight blocks are the bits of the number.
Colour colourAt(const Packing& packing, std::uint64_t number, std::uint32_t x, std::uint32_t y) {
  const std::uint32_t column = x / packing.block, row = y / packing.block;
  if (row == 0 && column < 8) return {number >> column & 1 ? 170 : 85, 128, 128};
  const auto mixed = [number](std::uint32_t a, std::uint32_t b) {
    std::uint32_t hash = static_cast<std::uint8_t>(number) * 0x9E3779B1U + a * 0x85EBCA6BU + b * 0xC2B2AE35U;
    hash = (hash ^ hash >> 15) * 0x2C1B3C6DU;
    return hash ^ hash >> 12;
  };
  const std::uint32_t hash = mixed(column, row), luma = packing.isLumaFine ? mixed(x + 7, y + 13) : hash;
  const auto within = [](std::uint32_t bits, int span) { return static_cast<int>(bits & 0xFF) * span >> 8; };
  // All of them are colours in RGB as well.
  return {80 + within(luma, 96), 104 + within(hash >> 8, 48), 104 + within(hash >> 16, 48)};
}

/// ITU-R BT.601, from video range.
std::uint8_t component(char name, const Colour& c) {
  const double y = 1.164383 * (c.y - 16), u = c.u - 128, v = c.v - 128;
  switch (name) {
    case 'u':
      return static_cast<std::uint8_t>(c.u);
    case 'v':
      return static_cast<std::uint8_t>(c.v);
    case 'r':
      return static_cast<std::uint8_t>(std::lround(y + 1.596027 * v));
    case 'g':
      return static_cast<std::uint8_t>(std::lround(y - 0.391762 * u - 0.812968 * v));
    case 'b':
      return static_cast<std::uint8_t>(std::lround(y + 2.017232 * u));
    default:
      return static_cast<std::uint8_t>(c.y);
  }
}

std::vector<std::uint8_t> compressed(const Picture& picture, std::uint8_t* pixels, std::uint32_t stride) {
  jpeg_compress_struct jpeg{};
  jpeg_error_mgr errors{};
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_compress(&jpeg);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&jpeg, &bytes, &size);
  jpeg.image_width = picture.width, jpeg.image_height = picture.height;
  jpeg.input_components = 3, jpeg.in_color_space = JCS_YCbCr;
  jpeg_set_defaults(&jpeg);
  jpeg_set_quality(&jpeg, 95, TRUE);
  jpeg.comp_info[0].v_samp_factor = 1;  // 4:2:2, as cameras send it
  jpeg_start_compress(&jpeg, TRUE);
  for (; jpeg.next_scanline < picture.height; pixels += stride) jpeg_write_scanlines(&jpeg, &pixels, 1);
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  std::vector<std::uint8_t> made(bytes, bytes + size);
  std::free(bytes);
  return made;
}

}  // namespace

std::vector<std::uint8_t> packed(const Picture& picture, std::uint64_t number, std::uint32_t& stride) {
  const Packing& packing = packingOf(picture);
  const std::uint32_t alike = packing.planes.back().rows;  // rows are padded to groups of as many
  std::vector<std::uint8_t> bytes;
  stride = 0;
  for (const Plane& plane : packing.planes) {
    for (std::uint32_t y = 0; y < (picture.height + alike - 1) / alike * alike; y += plane.rows) {
      for (std::uint32_t x = 0; x < picture.width; x += plane.pixels) {
        for (const char* name = plane.components; *name; ++name)
          bytes.push_back(component(*name, colourAt(packing, number, x + (*name == 'Y'), y)));
      }
      bytes.resize((bytes.size() + 3) / 4 * 4);
      if (stride == 0) stride = static_cast<std::uint32_t>(bytes.size());
    }
  }
  if (picture.packing == MotionJPEG) bytes = compressed(picture, bytes.data(), stride);
  if (picture.packing == MotionJPEG || packing.planes.size() > 1) stride = 0;
  return bytes;
}

std::optional<std::uint8_t> numberIn(const std::uint8_t* pixels, std::size_t rowBytes, const Picture& picture) {
  const Packing& packing = packingOf(picture);
  const std::uint32_t middle = packing.block / 2;
  unsigned number = 0;
  for (std::uint32_t bit = 0; bit < 8; ++bit)
    number |= static_cast<unsigned>(pixels[middle * rowBytes + (bit * packing.block + middle) * 2] > 128) << bit;
  // Where all rows of a block are the same, two of them will do.
  for (std::uint32_t y = 0; y < picture.height; y += packing.isLumaFine ? 1 : middle) {
    for (std::uint32_t x = 0; x < picture.width; ++x) {
      const Colour colour = colourAt(packing, number, x, y);
      int luma = colour.y, chroma = x % 2 == 0 ? colour.u : colour.v;
      if (picture.packing == MotionJPEG) luma = 16 + luma * 219 / 255, chroma = 128 + (chroma - 128) * 224 / 255;
      const std::uint8_t* const pixel = pixels + y * rowBytes + x * 2;
      if (std::abs(pixel[0] - luma) > packing.tolerance || std::abs(pixel[1] - chroma) > packing.tolerance) return {};
    }
  }
  return static_cast<std::uint8_t>(number);
}

}  // namespace test::pipewire

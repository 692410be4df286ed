#pragma once

// A picture as a camera packs it, in memory that belongs to somebody else.

#include <Hardware.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace hardware::pipewire {

/// Named after the order of the bytes in memory.
enum class Packing { none, YUY2, UYVY, NV12, NV21, I420, YV12, RGB, BGR, RGBx, BGRx, xRGB, xBGR, gray, JPEG };

struct Plane {
  const std::uint8_t* bytes = nullptr;
  std::size_t size = 0;    ///< in bytes
  std::size_t stride = 0;  ///< in bytes; 0 where the source does not say
};

struct PackedPicture {
  Packing packing = Packing::none;
  std::int32_t width = 0;  ///< in pixels
  std::int32_t height = 0;
  std::array<Plane, 3> planes{};
  int planeCount = 0;  ///< 1 where all planes lie in one piece, one after another
  VideoColor color{};  ///< as the source states it
};

}  // namespace hardware::pipewire

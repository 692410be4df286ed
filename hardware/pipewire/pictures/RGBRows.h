#pragma once

// Red, green and blue into rows of 'yuvs' in video range, with the matrix of BT.601, BT.709 or BT.2020. libyuv knows
// only the first of these.

#include <cstddef>

#include "PackedPicture.h"
#include "YUVSRows.h"

namespace hardware::pipewire {

constexpr bool isRGB(Packing packing) {
  return packing >= Packing::RGB && packing <= Packing::xBGR;
}

/// How many bytes of scratch memory writeRGB needs for so many rows.
std::size_t scratchForRGB(int width, int rowCount);

/// The packing is one of RGB, the matrix a known one.
void writeRGB(const YUVSRows& rows, Packing packing, PlaneRows from, VideoColor::Matrix matrix, std::uint8_t* scratch);

}  // namespace hardware::pipewire

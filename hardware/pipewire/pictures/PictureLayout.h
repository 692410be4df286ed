#pragma once

// Where the rows of a packed picture lie.

#include <array>
#include <cstdint>
#include <optional>

#include "PackedPicture.h"

namespace hardware::pipewire {

/// Rows of one plane.
struct PlaneRows {
  const std::uint8_t* bytes = nullptr;
  int stride = 0;  ///< in bytes

  PlaneRows from(std::int32_t row) const { return {bytes + std::ptrdiff_t{stride} * row, stride}; }
};

using PictureLayout = std::array<PlaneRows, 3>;

/// The planes in the packing's order, each of them within the memory that the picture states. Nothing where that is too
/// small, where the size or a stride makes no sense, and for packings without rows.
///
/// Without a stride, rows start at every fourth byte, and chroma planes in one piece with the luma follow an even
/// number of luma rows: GStreamer packs so, and states no stride. Where there is too little memory for that, they are
/// tightly packed. With a stride, chroma planes in one piece with the luma have the same share of it as of the pixels,
/// as V4L2 has it.
std::optional<PictureLayout> layoutOf(const PackedPicture& picture);

}  // namespace hardware::pipewire

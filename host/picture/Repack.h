#pragma once

// 'yuvs' pictures (Y0 Cb Y1 Cr) taken apart into planes, as files want them. Pure functions of their arguments.

#include <cstddef>
#include <cstdint>

namespace brvhost {

/// A 'yuvs' picture in memory, borrowed. Rows hold whole pairs: an odd width has one more luma sample, never shown.
struct PictureView {
  const std::uint8_t* pixels = nullptr;
  std::size_t rowBytes = 0;  ///< from one row to the next, at least yuvsRowBytes(width)
  std::size_t width = 0;
  std::size_t height = 0;
};

inline constexpr std::size_t chromaWidth(std::size_t width) {
  return width / 2 + width % 2;
}
inline constexpr std::size_t yuvsRowBytes(std::size_t width) {
  return chromaWidth(width) * 4;
}
inline constexpr std::size_t planarBytes(std::size_t width, std::size_t height) {
  return (width + 2 * chromaWidth(width)) * height;
}

/// Writes the Y plane, then Cb, then Cr, without gaps: planarBytes(width, height) bytes at `planes`.
void repackPlanar(const PictureView& picture, std::uint8_t* planes);

}  // namespace brvhost

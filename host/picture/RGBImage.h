#pragma once

// Pictures for the screen: 'yuvs' turned into RGB with square pixels.

#include <CoreVideo/CVPixelBuffer.h>

#include <cstdint>
#include <vector>

#include "picture/Rational.h"

namespace brvhost {

/// A 'yuvs' picture in memory, borrowed. Rows hold whole pairs: an odd width has one more luma sample, never shown.
struct PictureView {
  const std::uint8_t* pixels = nullptr;
  std::size_t rowBytes = 0;  ///< from one row to the next
  std::size_t width = 0;
  std::size_t height = 0;
};

/// 8 bits each of red, green and blue, rows without gaps.
struct RGBImage {
  std::size_t width = 0;
  std::size_t height = 0;
  std::vector<std::uint8_t> pixels;
};

/// Which matrix made Y, Cb and Cr from red, green and blue.
enum class ColorMatrix { bt601, bt709, smpte240m, bt2020 };

/// What is attached to the picture; without that BT.709 from 720 lines on, BT.601 below, as broadcast has it.
ColorMatrix colorMatrix(CVPixelBufferRef picture);

/// Reads `picture` as video range (black 16, white 235). A chroma sample lies on the first pixel of its pair; the
/// second pixel gets the mean of its neighbours.
RGBImage convertToRGB(const PictureView& picture, ColorMatrix matrix);

/// Stretches or squeezes the width so that pixels of the given shape come out square. An unknown shape changes nothing.
RGBImage withSquarePixels(RGBImage image, Rational pixelAspect);

}  // namespace brvhost

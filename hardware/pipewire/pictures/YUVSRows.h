#pragma once

// Writing rows of 'yuvs', Y0 Cb Y1 Cr, from planes.

#include <cstddef>
#include <cstdint>

#include "PictureLayout.h"

namespace hardware::pipewire {

/// Some rows of the picture that is being written, (width + 1) / 2 pairs each.
struct YUVSRows {
  std::uint8_t* bytes;
  int stride;
  int width;  ///< in pixels
  int count;
};

constexpr std::size_t pairsOf(std::int32_t width) {
  return (static_cast<std::size_t>(width) + 1) / 2;
}

enum class ChromaRows { each, everySecond };

/// Chroma has half the width. The other pixel of the last pair of an odd row is left to `finish`.
void writePlanes(const YUVSRows& rows, PlaneRows luma, PlaneRows cb, PlaneRows cr, ChromaRows chromaRows);

/// The same without colour.
void writeGray(const YUVSRows& rows, PlaneRows luma);

/// Fills the last pair of odd rows, and takes full range to video range.
void finish(const YUVSRows& rows, bool isFullRange);

/// Replaces each pair of samples, `pairs` in a row without gaps, by its mean; the means follow each other.
void halve(std::uint8_t* samples, std::size_t pairs);

/// Makes rows of odd width even, by repeating the last sample. There must be room for it.
void repeatLastOfOddRows(std::uint8_t* samples, std::size_t stride, int width, int count);

}  // namespace hardware::pipewire

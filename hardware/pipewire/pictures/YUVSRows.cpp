#include "YUVSRows.h"

#include <libyuv/convert_from.h>
#include <libyuv/planar_functions.h>

#include <algorithm>
#include <array>

namespace hardware::pipewire {
namespace {

constexpr std::size_t ChunkSize = 1024;
using Chunk = std::array<std::uint8_t, ChunkSize>;

constexpr Chunk filledWith(std::uint8_t luma, std::uint8_t chroma) {
  Chunk chunk{};
  for (std::size_t i = 0; i < ChunkSize; ++i) chunk[i] = i % 2 ? chroma : luma;
  return chunk;
}

// Video range is full range blended with a constant: 220/256 of luma, from 0 to 255, and 35/256 of 113 make 16 to 235.
constexpr Chunk RangeWeights = filledWith(220, 225);
constexpr Chunk RangeOffsets = filledWith(113, 129);

constexpr Chunk NoChroma = filledWith(128, 128);

}  // namespace

void writePlanes(const YUVSRows& rows, PlaneRows luma, PlaneRows cb, PlaneRows cr, ChromaRows chromaRows) {
  const auto write = chromaRows == ChromaRows::each ? libyuv::I422ToYUY2 : libyuv::I420ToYUY2;
  write(luma.bytes, luma.stride, cb.bytes, cb.stride, cr.bytes, cr.stride, rows.bytes, rows.stride, rows.width,
        rows.count);
}

void writeGray(const YUVSRows& rows, PlaneRows luma) {
  constexpr int columns = 2 * ChunkSize;
  const PlaneRows chroma{NoChroma.data(), 0};
  for (int x = 0; x < rows.width; x += columns) {
    writePlanes({rows.bytes + std::ptrdiff_t{2} * x, rows.stride, std::min(columns, rows.width - x), rows.count},
                {luma.bytes + x, luma.stride}, chroma, chroma, ChromaRows::each);
  }
}

void finish(const YUVSRows& rows, bool isFullRange) {
  const auto rowBytes = static_cast<int>(4 * pairsOf(rows.width));
  if (rows.width % 2 != 0) {
    std::uint8_t* end = rows.bytes + rowBytes;
    for (int y = 0; y < rows.count; ++y, end += rows.stride) end[-2] = end[-4];
  }
  if (!isFullRange) return;
  constexpr int size = ChunkSize;
  for (int x = 0; x < rowBytes; x += size) {
    libyuv::BlendPlane(rows.bytes + x, rows.stride, RangeOffsets.data(), 0, RangeWeights.data(), 0, rows.bytes + x,
                       rows.stride, std::min(size, rowBytes - x), rows.count);
  }
}

void halve(std::uint8_t* samples, std::size_t pairs) {
  Chunk first, second;
  for (std::size_t i = 0; i < pairs; i += ChunkSize) {
    const auto count = static_cast<int>(std::min(ChunkSize, pairs - i));
    libyuv::SplitUVPlane(samples + 2 * i, 2 * count, first.data(), count, second.data(), count, count, 1);
    libyuv::InterpolatePlane(first.data(), count, second.data(), count, samples + i, count, count, 1, 128);
  }
}

void repeatLastOfOddRows(std::uint8_t* samples, std::size_t stride, int width, int count) {
  if (width % 2 == 0) return;
  for (int y = 0; y < count; ++y, samples += stride) samples[width] = samples[width - 1];
}

}  // namespace hardware::pipewire

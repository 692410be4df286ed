#include "PictureReader.h"

#include <libyuv/planar_functions.h>

#include <algorithm>
#include <limits>

#include "PictureLayout.h"
#include "RGBRows.h"
#include "YUVSRows.h"

namespace hardware::pipewire {
namespace {

/// How many rows are converted in one go: even for the sake of chroma, and few enough that all they need on their way
/// stays in the processor's first cache. What is only copied goes in one piece, which takes a tenth less.
constexpr int RowsAtOnce = 2;

/// Chroma of every second row, in two planes or in pairs of bytes that are split first.
void writeSubsampled(const YUVSRows& rows, Packing packing, const PictureLayout& layout, int y, std::uint8_t* scratch) {
  PlaneRows first = layout[1].from(y / 2);
  PlaneRows second = layout[2].from(y / 2);
  if (packing == Packing::NV12 || packing == Packing::NV21) {
    const auto pairs = static_cast<int>(pairsOf(rows.width));
    std::uint8_t* const split = scratch + pairs;
    libyuv::SplitUVPlane(first.bytes, first.stride, scratch, pairs, split, pairs, pairs, 1);
    first = {scratch, pairs};
    second = {split, pairs};
  }
  if (packing == Packing::NV21 || packing == Packing::YV12) std::swap(first, second);
  writePlanes(rows, layout[0].from(y), first, second, ChromaRows::everySecond);
}

}  // namespace

VideoColor colorWhenWritten(const PackedPicture& picture) {
  using Matrix = VideoColor::Matrix;
  VideoColor color = picture.color;
  color.range = VideoColor::Range::video;
  if (picture.packing == Packing::JPEG) color.matrix = Matrix::ITU_R_601_4;
  if (isRGB(picture.packing) && (!color.matrix || color.matrix == Matrix::SMPTE_240M_1995)) {
    color.matrix = picture.height >= 720 ? Matrix::ITU_R_709_2 : Matrix::ITU_R_601_4;
  }
  return color;
}

bool PictureReader::write(const PackedPicture& picture, std::uint8_t* rows, std::size_t rowBytes) noexcept {
  if (picture.width <= 0 || picture.height <= 0 || rowBytes < 4 * pairsOf(picture.width) ||
      rowBytes > std::numeric_limits<int>::max()) {
    return false;
  }
  const auto stride = static_cast<int>(rowBytes);
  if (picture.packing != Packing::JPEG) return writeRaw(picture, rows, stride);
  return picture.planeCount > 0 && _jpeg.write(picture.planes[0], picture.width, picture.height, rows, stride);
}

bool PictureReader::writeRaw(const PackedPicture& picture, std::uint8_t* rows, int rowBytes) noexcept {
  const auto layout = layoutOf(picture);
  if (!layout) return false;
  std::uint8_t* const scratch = _scratch.bytes(scratchForRGB(picture.width, RowsAtOnce));
  if (!scratch) return false;

  const auto pairs = static_cast<int>(pairsOf(picture.width));
  const bool isFullRange = picture.color.range == VideoColor::Range::full && !isRGB(picture.packing);
  const auto matrix = colorWhenWritten(picture).matrix.value_or(VideoColor::Matrix::ITU_R_601_4);
  const int rowsAtOnce = picture.packing == Packing::YUY2 && !isFullRange ? picture.height : RowsAtOnce;
  for (int y = 0; y < picture.height; y += rowsAtOnce) {
    const YUVSRows written{rows + std::ptrdiff_t{rowBytes} * y, rowBytes, picture.width,
                           std::min(rowsAtOnce, picture.height - y)};
    const PlaneRows first = (*layout)[0].from(y);
    switch (picture.packing) {
      case Packing::YUY2:
        libyuv::CopyPlane(first.bytes, first.stride, written.bytes, rowBytes, 4 * pairs, written.count);
        break;
      case Packing::UYVY:
        libyuv::SwapUVPlane(first.bytes, first.stride, written.bytes, rowBytes, 2 * pairs, written.count);
        break;
      case Packing::gray:
        writeGray(written, first);
        break;
      case Packing::NV12:
      case Packing::NV21:
      case Packing::I420:
      case Packing::YV12:
        writeSubsampled(written, picture.packing, *layout, y, scratch);
        break;
      default:
        writeRGB(written, picture.packing, first, matrix, scratch);
    }
    finish(written, isFullRange);
  }
  return true;
}

}  // namespace hardware::pipewire

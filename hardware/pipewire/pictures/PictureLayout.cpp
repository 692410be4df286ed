#include "PictureLayout.h"

#include <algorithm>
#include <span>

namespace hardware::pipewire {
namespace {

/// So many bytes for so many pixels next to each other, in one of so many rows.
struct PlaneShape {
  std::size_t bytes, pixels, rows;
};

constexpr PlaneShape Pairs[] = {{4, 2, 1}};
constexpr PlaneShape Biplanar[] = {{1, 1, 1}, {2, 2, 2}};
constexpr PlaneShape Planar[] = {{1, 1, 1}, {1, 2, 2}, {1, 2, 2}};
constexpr PlaneShape ThreeBytes[] = {{3, 1, 1}};
constexpr PlaneShape FourBytes[] = {{4, 1, 1}};
constexpr PlaneShape OneByte[] = {{1, 1, 1}};

using Shapes = std::span<const PlaneShape>;

Shapes shapesOf(Packing packing) {
  switch (packing) {
    case Packing::YUY2:
    case Packing::UYVY:
      return Pairs;
    case Packing::NV12:
    case Packing::NV21:
      return Biplanar;
    case Packing::I420:
    case Packing::YV12:
      return Planar;
    case Packing::RGB:
    case Packing::BGR:
      return ThreeBytes;
    case Packing::RGBx:
    case Packing::BGRx:
    case Packing::xRGB:
    case Packing::xBGR:
      return FourBytes;
    case Packing::gray:
      return OneByte;
    case Packing::none:
    case Packing::JPEG:
      break;
  }
  return {};
}

constexpr std::size_t divideUp(std::size_t a, std::size_t b) {
  return (a + b - 1) / b;
}

/// libyuv counts bytes in int.
constexpr std::size_t MaximumSide = 1 << 15;
constexpr std::size_t MaximumStride = 1 << 24;

struct Size {
  std::size_t width, height;
};

/// Lays planes one after another into one piece of memory. False when they do not fit.
bool lay(const Plane& memory, Shapes shapes, Size size, bool isPadded, PlaneRows* planes) {
  std::size_t offset = 0;
  for (const PlaneShape& shape : shapes) {
    const std::size_t rowBytes = divideUp(size.width, shape.pixels) * shape.bytes;
    const std::size_t rowCount = divideUp(size.height, shape.rows);
    const std::size_t share = divideUp(memory.stride * shape.bytes * shapes[0].pixels, shape.pixels * shapes[0].bytes);
    const std::size_t stride = memory.stride != 0 ? share : isPadded ? divideUp(rowBytes, 4) * 4 : rowBytes;
    if (stride < rowBytes || offset + stride * (rowCount - 1) + rowBytes > memory.size) return false;
    *planes++ = {memory.bytes + offset, static_cast<int>(stride)};
    offset += stride * (isPadded ? divideUp(divideUp(size.height, 2) * 2, shape.rows) : rowCount);
  }
  return true;
}

bool lay(const Plane& memory, Shapes shapes, Size size, PlaneRows* planes) {
  if (!memory.bytes || memory.stride > MaximumStride) return false;
  return (memory.stride == 0 && lay(memory, shapes, size, true, planes)) || lay(memory, shapes, size, false, planes);
}

}  // namespace

std::optional<PictureLayout> layoutOf(const PackedPicture& picture) {
  const Shapes shapes = shapesOf(picture.packing);
  if (shapes.empty() || picture.width <= 0 || picture.height <= 0 || picture.planeCount <= 0) return std::nullopt;
  const Size size{static_cast<std::size_t>(picture.width), static_cast<std::size_t>(picture.height)};
  if (std::max(size.width, size.height) > MaximumSide) return std::nullopt;

  PictureLayout layout;
  if (static_cast<std::size_t>(picture.planeCount) < shapes.size()) {
    return lay(picture.planes[0], shapes, size, layout.data()) ? std::optional(layout) : std::nullopt;
  }
  for (std::size_t i = 0; i < shapes.size(); ++i) {
    if (!lay(picture.planes[i], shapes.subspan(i, 1), size, &layout[i])) return std::nullopt;
  }
  return layout;
}

}  // namespace hardware::pipewire

#include "RGBRows.h"

#include <libyuv/planar_functions.h>

#include <array>

namespace hardware::pipewire {
namespace {

/// A share in 1/65536, modulo 256, in two parts that a sample can be multiplied by in 16 bits.
struct Weight {
  std::uint16_t high, low;
};

/// One component of a pixel: what red, green and blue weigh in it, and what is added.
struct Component {
  Weight red, green, blue;
  std::uint16_t offset;
};

struct Matrix {
  Component luma, cb, cr;
};

/// From the shares of red and blue in luma.
constexpr Matrix matrixOf(double red, double blue) {
  const auto component = [](double r, double g, double b, double range, int offset) {
    const auto weight = [range](double share) {
      const int scaled = (static_cast<int>(2 * 65536 * (256 + share * range / 255)) + 1) / 2;
      return Weight{static_cast<std::uint16_t>(scaled >> 8 & 0xFFFF), static_cast<std::uint16_t>(scaled & 0xFF)};
    };
    return Component{weight(r), weight(g), weight(b), static_cast<std::uint16_t>(offset)};
  };
  const double green = 1 - red - blue;
  const double toCb = 0.5 / (1 - blue);
  const double toCr = 0.5 / (1 - red);
  return {component(red, green, blue, 219, 16), component(-red * toCb, -green * toCb, 0.5, 224, 128),
          component(0.5, -green * toCr, -blue * toCr, 224, 128)};
}

constexpr Matrix BT601 = matrixOf(0.299, 0.114);
constexpr Matrix BT709 = matrixOf(0.2126, 0.0722);
constexpr Matrix BT2020 = matrixOf(0.2627, 0.0593);

const Matrix& matrixOf(VideoColor::Matrix matrix) {
  return matrix == VideoColor::Matrix::ITU_R_601_4 ? BT601 : matrix == VideoColor::Matrix::ITU_R_709_2 ? BT709 : BT2020;
}

/// Reckons modulo 2^16 with eight bits of fraction, so that compilers make vector instructions of it that every
/// processor has.
void weigh(const Component& component, const std::uint8_t* red, const std::uint8_t* green, const std::uint8_t* blue,
           std::uint8_t* __restrict to, std::size_t count) {
  const auto [r, g, b, offset] = component;
  // Half a step to round, and what three products lose by being cut off.
  const auto base = static_cast<std::uint16_t>(offset * 256 + 128 + 1);
  const auto product = [](std::uint8_t sample, Weight weight) {
    return static_cast<std::uint16_t>(static_cast<std::uint16_t>(sample * weight.high) +
                                      (static_cast<std::uint16_t>(sample * weight.low) >> 8));
  };
  for (std::size_t i = 0; i < count; ++i) {
    const int sum = base + product(red[i], r) + product(green[i], g) + product(blue[i], b);
    to[i] = static_cast<std::uint8_t>(static_cast<std::uint16_t>(sum) >> 8);
  }
}

/// Which byte of a pixel is what.
struct ByteOrder {
  std::size_t red, green, blue;
};

constexpr ByteOrder orderOf(Packing packing) {
  switch (packing) {
    case Packing::BGR:
    case Packing::BGRx:
      return {2, 1, 0};
    case Packing::xRGB:
      return {1, 2, 3};
    case Packing::xBGR:
      return {3, 2, 1};
    default:
      return {0, 1, 2};
  }
}

std::size_t samplesOf(int width, int rowCount) {
  return 2 * pairsOf(width) * static_cast<std::size_t>(rowCount);
}

}  // namespace

std::size_t scratchForRGB(int width, int rowCount) {
  return 5 * samplesOf(width, rowCount);
}

void writeRGB(const YUVSRows& rows, Packing packing, PlaneRows from, VideoColor::Matrix matrix, std::uint8_t* scratch) {
  const auto stride = static_cast<int>(2 * pairsOf(rows.width));
  const std::size_t samples = samplesOf(rows.width, rows.count);
  std::array<std::uint8_t*, 4> bytes;  // each byte of a pixel in a plane of its own
  for (std::uint8_t*& plane : bytes) plane = scratch, scratch += samples;
  std::uint8_t* const luma = scratch;

  if (packing == Packing::RGB || packing == Packing::BGR) {
    libyuv::SplitRGBPlane(from.bytes, from.stride, bytes[0], stride, bytes[1], stride, bytes[2], stride, rows.width,
                          rows.count);
  } else {
    // libyuv names the bytes from the last to the first.
    libyuv::SplitARGBPlane(from.bytes, from.stride, bytes[2], stride, bytes[1], stride, bytes[0], stride, bytes[3],
                           stride, rows.width, rows.count);
  }

  const ByteOrder order = orderOf(packing);
  const std::array<std::uint8_t*, 3> colors{bytes[order.red], bytes[order.green], bytes[order.blue]};
  std::uint8_t* const cb = bytes[6 - order.red - order.green - order.blue];
  std::uint8_t* const cr = cb + samples / 2;
  const auto& [toLuma, toCb, toCr] = matrixOf(matrix);
  for (std::uint8_t* plane : colors) {
    repeatLastOfOddRows(plane, static_cast<std::size_t>(stride), rows.width, rows.count);
  }
  weigh(toLuma, colors[0], colors[1], colors[2], luma, samples);
  for (std::uint8_t* plane : colors) halve(plane, samples / 2);
  weigh(toCb, colors[0], colors[1], colors[2], cb, samples / 2);
  weigh(toCr, colors[0], colors[1], colors[2], cr, samples / 2);
  writePlanes(rows, {luma, stride}, {cb, stride / 2}, {cr, stride / 2}, ChromaRows::each);
}

}  // namespace hardware::pipewire

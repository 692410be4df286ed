#include "pipewire/pictures/PictureReader.h"

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "support/GuardedBytes.h"

namespace hardware::pipewire {
namespace {

using Bytes = std::vector<std::uint8_t>;

double inVideoRange(std::size_t component, double sample) {
  return component == 0 ? 16 + sample * 219 / 255 : 128 + (sample - 128) * 224 / 255;
}

/// Whether the picture can be read. Then it is `expected(component, x, y)`, with a gap after each row but the last.
bool isRead(const PackedPicture& picture, double tolerance,
            const std::function<double(std::size_t component, int x, int y)>& expected) {
  static PictureReader reader;
  const std::size_t pairBytes = static_cast<std::size_t>(picture.width + 1) / 2 * 4, rowBytes = pairBytes + 12;
  const GuardedBytes rows(rowBytes * static_cast<std::size_t>(picture.height) - 12);
  std::fill_n(rows.data, rows.size, 0xA5);
  if (!reader.write(picture, rows.data, rowBytes)) return false;
  for (std::size_t i = 0; i < rows.size; ++i) {
    const std::size_t column = i % rowBytes;
    const int x = std::min(static_cast<int>(column / 2), picture.width - 1), y = static_cast<int>(i / rowBytes);
    const bool isGap = column >= pairBytes;
    const double value = isGap ? 0xA5 : expected(column % 2 == 0 ? 0 : column % 4 / 2 + 1, x, y);
    if (std::abs(rows.data[i] - value) <= (isGap ? 0 : tolerance)) continue;
    ADD_FAILURE() << "byte " << column << " of row " << y << ": " << int{rows.data[i]} << ", not " << value;
    break;
  }
  return true;
}

/// What a packing's planes repeat, a letter a byte.
struct Format {
  Packing packing;
  std::vector<std::string> planes;
};

/// How rows lie in memory.
struct Way {
  std::size_t alignment, lumaRowAlignment;
  bool isInOnePiece, statesStride;
};

int sampleAt(std::size_t component, int x, int y) {
  if (component == 0) return (x * 37 + y * 59) & 0xFF;
  return (static_cast<int>(component) * 83 + x / 2 * 41 + y / 2 * 13) & 0xFF;
}

std::size_t alignUp(std::size_t a, std::size_t to) {
  return (a + to - 1) / to * to;
}

std::deque<GuardedBytes> pack(const Format& format, const Way& way, PackedPicture& picture) {
  std::deque<GuardedBytes> memory;
  Bytes bytes;
  for (const std::string& group : format.planes) {
    const bool isFirst = &group == &format.planes[0];
    const int pixels = !isFirst || std::ranges::count(group, 'y') == 2 ? 2 : 1, step = isFirst ? 1 : 2;
    const int rows = (picture.height + step - 1) / step;
    const std::size_t rowBytes = static_cast<std::size_t>((picture.width + pixels - 1) / pixels) * group.size();
    const bool sharesStride = way.isInOnePiece && way.statesStride && !isFirst;
    const std::size_t stride = alignUp(rowBytes, sharesStride ? way.alignment * group.size() / 2 : way.alignment);
    const std::size_t start = bytes.size(), size = start + stride * static_cast<std::size_t>(rows - 1) + rowBytes;
    bytes.resize(start + stride * alignUp(static_cast<std::size_t>(rows), isFirst ? way.lumaRowAlignment : 1), 0xEE);
    for (std::size_t i = 0; i < static_cast<std::size_t>(rows) * rowBytes; ++i) {
      const std::size_t row = i / rowBytes, byte = i % rowBytes, place = byte % group.size();
      const int x = static_cast<int>(byte / group.size()) * pixels + (pixels == 2 && place >= 2 ? 1 : 0);
      const int sample = sampleAt(std::string("yuvrgb").find(group[place]) % 3, x, static_cast<int>(row) * step);
      bytes[start + row * stride + byte] = static_cast<std::uint8_t>(sample);
    }
    if (way.isInOnePiece && &group != &format.planes.back()) continue;
    std::copy_n(bytes.begin(), size, memory.emplace_back(size).data);
    const std::size_t stated = !way.statesStride ? 0 : sharesStride ? stride * 2 / group.size() : stride;
    picture.planes[static_cast<std::size_t>(picture.planeCount++)] = {memory.back().data, size, stated};
    bytes.clear();
  }
  return memory;
}

double valueAt(const PackedPicture& picture, std::size_t component, int x, int y) {
  if (picture.packing == Packing::gray && component > 0) return 128;
  if (picture.packing < Packing::RGB || picture.packing > Packing::xBGR) {
    const int sample = sampleAt(component, x, y);
    return picture.color.range ? inVideoRange(component, sample) : sample;
  }
  const int first = component > 0 ? x & ~1 : x, second = component > 0 ? std::min(x | 1, picture.width - 1) : x;
  const auto mean = [&](std::size_t c) { return (sampleAt(c, first, y) + sampleAt(c, second, y)) / 2.0; };
  const bool isHD = colorWhenWritten(picture).matrix == hardware::VideoColor::Matrix::ITU_R_709_2;
  const double red = isHD ? 0.2126 : 0.299, blue = isHD ? 0.0722 : 0.114;
  const double luma = red * mean(0) + (1 - red - blue) * mean(1) + blue * mean(2);
  const double chroma = component == 1 ? (mean(2) - luma) / (1 - blue) : (mean(0) - luma) / (1 - red);
  return inVideoRange(component, component == 0 ? luma : 128 + chroma / 2);
}

const Format Formats[] = {
    {Packing::YUY2, {"yuyv"}},    {Packing::UYVY, {"uyvy"}},        {Packing::NV12, {"y", "uv"}},
    {Packing::NV21, {"y", "vu"}}, {Packing::I420, {"y", "u", "v"}}, {Packing::YV12, {"y", "v", "u"}},
    {Packing::gray, {"y"}},       {Packing::RGB, {"rgb"}},          {Packing::BGR, {"bgr"}},
    {Packing::RGBx, {"rgbg"}},    {Packing::BGRx, {"bgrg"}},        {Packing::xRGB, {"grgb"}},
    {Packing::xBGR, {"gbgr"}}};

// Tight, as GStreamer packs, with the stride of the first plane, and in planes with strides of their own.
constexpr Way Ways[] = {{1, 1, true, false}, {4, 2, true, false}, {64, 1, true, true}, {36, 1, false, true}};

TEST(PictureReaderTest, EveryPackingIsReadAtEverySizeAndLayoutAndNotOneByteTooShort) {
  for (const Format& format : Formats) {
    for (const Way& way : Ways) {
      for (const auto& [width, height] : {std::pair{1, 1}, {2, 2}, {3, 3}, {5, 4}, {1301, 3}, {38, 720}}) {
        SCOPED_TRACE(format.planes.back() + " of " + std::to_string(width) + " x " + std::to_string(height) +
                     ", rows aligned to " + std::to_string(way.alignment));
        PackedPicture picture{format.packing, width, height, {}, 0, {}};
        if (width == 1301) picture.color.range = hardware::VideoColor::Range::full;
        const auto memory = pack(format, way, picture);
        const double tolerance = width == 1301 || format.planes[0].find('g') != std::string::npos ? 1.1 : 0;
        EXPECT_TRUE(isRead(picture, tolerance, std::bind_front(valueAt, picture)));
        --picture.planes[memory.size() - 1].size;
        EXPECT_TRUE(way.alignment == 4 || !isRead(picture, 255, [](auto...) { return 0; }));
      }
    }
  }
}

TEST(PictureReaderTest, ColoursAreThoseOfTheSourceWhereTheyAreNotConverted) {
  using Matrix = hardware::VideoColor::Matrix;
  const struct {
    Packing packing;
    int height;
    std::optional<Matrix> stated, written;
  } cases[] = {{Packing::RGB, 719, {}, Matrix::ITU_R_601_4},
               {Packing::BGRx, 720, {}, Matrix::ITU_R_709_2},
               {Packing::RGB, 720, Matrix::ITU_R_601_4, Matrix::ITU_R_601_4},
               {Packing::RGB, 48, Matrix::SMPTE_240M_1995, Matrix::ITU_R_601_4},
               {Packing::NV12, 720, Matrix::SMPTE_240M_1995, Matrix::SMPTE_240M_1995},
               {Packing::NV12, 720, {}, {}},
               {Packing::JPEG, 720, Matrix::ITU_R_709_2, Matrix::ITU_R_601_4}};
  for (const auto& [packing, height, stated, written] : cases) {
    PackedPicture picture{packing, 64, height, {}, 0, {}};
    picture.color.matrix = stated;
    EXPECT_EQ(colorWhenWritten(picture).matrix, written);
  }
}

/// Squares that no subsampling mixes, in full range.
int squareAt(std::size_t component, int x, int y) {
  const int square = x / 16 + y / 16 * 5;
  return component == 0 ? square * 71 & 0xFF : static_cast<int>(component) * 20 + square * 37 % 180;
}

/// Without the Huffman tables that every decoder of Motion JPEG knows.
Bytes compressed(int width, int height, int components, const std::function<void(jpeg_compress_struct&)>& adjust) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  Bytes bytes(1 << 18), row;
  std::uint8_t* made = bytes.data();
  unsigned long size = bytes.size();
  jpeg_mem_dest(&info, &made, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = components;
  info.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_YCbCr;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 97, TRUE);
  adjust(info);
  for (auto* tables : {info.dc_huff_tbl_ptrs, info.ac_huff_tbl_ptrs}) tables[0]->sent_table = tables[1]->sent_table = 1;
  jpeg_start_compress(&info, FALSE);
  for (int y = 0; y < height; ++y) {
    row.clear();
    for (int i = 0; i < width * components; ++i) {
      row.push_back(static_cast<std::uint8_t>(squareAt(static_cast<std::size_t>(i % components), i / components, y)));
    }
    JSAMPROW line = row.data();
    jpeg_write_scanlines(&info, &line, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  bytes.resize(size);
  return bytes;
}

bool isRead(const Bytes& bytes, int width, int height, bool hasColor = true) {
  const GuardedBytes memory(bytes.size());
  std::ranges::copy(bytes, memory.data);
  return isRead({Packing::JPEG, width, height, {Plane{memory.data, memory.size, 0}}, 1, {}}, 2,
                [hasColor](std::size_t component, int x, int y) {
                  return component == 0 || hasColor ? inVideoRange(component, squareAt(component, x, y)) : 128;
                });
}

TEST(PictureReaderTest, MotionJPEGIsReadWithWhateverTablesAndEndItHas) {
  for (const auto& [width, height] : {std::pair{1, 1}, {16, 16}, {35, 19}, {1280, 34}}) {
    for (const auto& [h, v] : {std::pair{2, 1}, {2, 2}, {1, 1}, {1, 2}}) {
      for (const boolean hasTablesOfItsOwn : {TRUE, FALSE}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height) + ", " + std::to_string(h * 10 + v));
        Bytes bytes = compressed(width, height, 3, [&, h = h, v = v](jpeg_compress_struct& info) {
          info.comp_info[0].h_samp_factor = h;
          info.comp_info[0].v_samp_factor = v;
          info.optimize_coding = hasTablesOfItsOwn;
        });
        bytes.erase(bytes.end() - 2, bytes.end());
        EXPECT_TRUE(isRead(bytes, width, height)) << "without its end";
        bytes.insert(bytes.end(), {0, 0, 0xFF, 0xD9, 0xFF, 0xD8, 7});
        EXPECT_TRUE(isRead(bytes, width, height)) << "with more at its end";
      }
    }
    EXPECT_TRUE(isRead(compressed(width, height, 1, [](auto&) {}), width, height, false));
  }
}

TEST(PictureReaderTest, WhatIsNoWholeJPEGOfTheAnnouncedSizeIsRefused) {
  const Bytes good = compressed(64, 48, 3, [](auto&) {});
  EXPECT_TRUE(isRead(good, 64, 48));
  for (std::size_t size = 0; size + 3 < good.size(); ++size) {
    EXPECT_FALSE(isRead(Bytes(good.begin(), good.begin() + static_cast<int>(size)), 64, 48)) << size;
  }
  Bytes corrupt = good;
  std::fill(corrupt.end() - 60, corrupt.end() - 50, std::uint8_t{0xFE});
  EXPECT_FALSE(isRead(corrupt, 64, 48));
  EXPECT_FALSE(isRead(good, 64, 47));
  EXPECT_FALSE(isRead(
      compressed(64, 48, 3, [](auto& info) { jpeg_set_colorspace(&info, info.in_color_space = JCS_RGB); }), 64, 48));
  EXPECT_FALSE(isRead(compressed(64, 48, 3, [](auto& info) { jpeg_simple_progression(&info); }), 64, 48));
}

}  // namespace
}  // namespace hardware::pipewire

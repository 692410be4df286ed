#pragma once

// Pictures that a receiver can check: colours that follow from a picture's number and a pixel's place and survive every
// packing. The number is in them as well.

#include <spa/param/video/raw.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace test::pipewire {

/// How a camera sends its pictures.
struct Picture {
  std::uint32_t packing = SPA_VIDEO_FORMAT_YUY2;  ///< or one of those below
  std::uint32_t width = 320, height = 180;
};
inline constexpr std::uint32_t MotionJPEG = SPA_VIDEO_FORMAT_ENCODED, H264 = 1000;

/// The bytes of picture `number`; `stride` becomes those of a row, 0 for Motion JPEG and for several planes: rows begin
/// at multiples of four, chroma follows an even number of rows of luma.
std::vector<std::uint8_t> packed(const Picture& picture, std::uint64_t number, std::uint32_t& stride);

/// The lowest 8 bits of the number of the picture in 'yuvs' pixels, which are those of `picture` one and all; none when
/// they are not. What a packing keeps is compared bit by bit: all but colours that are converted.
std::optional<std::uint8_t> numberIn(const std::uint8_t* pixels, std::size_t rowBytes, const Picture& picture);

}  // namespace test::pipewire

#pragma once

// Pictures of 1920 x 1080 as cameras send them.

#include <cstdio>  // jpeglib.h needs FILE

#include <jpeglib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace bench {

constexpr int CameraWidth = 1920;
constexpr int CameraHeight = 1080;

/// Edges, gradients and the noise of a sensor, in so many bytes a pixel.
inline std::vector<std::uint8_t> rawPicture(std::size_t bytesPerPixel) {
  std::vector<std::uint8_t> bytes(bytesPerPixel * CameraWidth * CameraHeight);
  std::uint32_t noise = 1;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    noise = noise * 1664525 + 1013904223;
    const std::size_t x = i / bytesPerPixel % CameraWidth, y = i / bytesPerPixel / CameraWidth;
    bytes[i] = static_cast<std::uint8_t>(40 + x / 16 + (x / 120 + y / 90) % 2 * 60 + (noise >> 28));
  }
  return bytes;
}

/// Motion JPEG, 4:2:2, about half a megabyte, of luma and chroma in three bytes a pixel.
inline std::vector<std::uint8_t> compressedPicture(std::vector<std::uint8_t> raw = rawPicture(3)) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &bytes, &size);
  info.image_width = CameraWidth;
  info.image_height = CameraHeight;
  info.input_components = 3;
  info.in_color_space = JCS_YCbCr;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 85, TRUE);
  info.comp_info[0].v_samp_factor = 1;
  jpeg_start_compress(&info, TRUE);
  for (std::size_t y = 0; y < CameraHeight; ++y) {
    JSAMPROW row = raw.data() + y * CameraWidth * 3;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  const std::vector<std::uint8_t> compressed(bytes, bytes + size);
  std::free(bytes);
  return compressed;
}

}  // namespace bench

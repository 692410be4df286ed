#include "picture/ImageFile.h"

#include <cstdio>  // jpeglib.h needs FILE

#include <jpeglib.h>
#include <png.h>
#include <strings.h>

#include <csetjmp>
#include <cstdlib>
#include <filesystem>

#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr int JPEGQuality = 92;

/// A picture while libjpeg compresses it. Lives outside the function that libjpeg may jump back into.
struct JPEG {
  jpeg_compress_struct codec{};
  jpeg_error_mgr errors{};
  std::jmp_buf failed;
  char reason[JMSG_LENGTH_MAX] = "";
  unsigned char* bytes = nullptr;
  unsigned long size = 0;

  JPEG() = default;
  JPEG(const JPEG&) = delete;
  JPEG& operator=(const JPEG&) = delete;
  ~JPEG() {
    jpeg_destroy_compress(&codec);
    std::free(bytes);
  }
};

[[noreturn]] void giveUp(j_common_ptr codec) {
  auto& jpeg = *static_cast<JPEG*>(codec->client_data);
  codec->err->format_message(codec, jpeg.reason);
  std::longjmp(jpeg.failed, 1);
}

/// Holds no object with a destructor: errors leave it by longjmp.
bool compress(const RGBImage& image, JPEG& jpeg) {
  jpeg_compress_struct& codec = jpeg.codec;
  codec.err = jpeg_std_error(&jpeg.errors);
  jpeg.errors.error_exit = giveUp;
  codec.client_data = &jpeg;
  if (setjmp(jpeg.failed) != 0) return false;

  jpeg_create_compress(&codec);
  jpeg_mem_dest(&codec, &jpeg.bytes, &jpeg.size);
  codec.image_width = static_cast<JDIMENSION>(image.width);
  codec.image_height = static_cast<JDIMENSION>(image.height);
  codec.input_components = 3;
  codec.in_color_space = JCS_RGB;
  jpeg_set_defaults(&codec);
  jpeg_set_quality(&codec, JPEGQuality, TRUE);
  codec.comp_info[0].v_samp_factor = 1;  // 4:2:2, as it came
  jpeg_start_compress(&codec, TRUE);
  while (codec.next_scanline < codec.image_height) {
    auto* row = const_cast<JSAMPROW>(image.pixels.data() + codec.next_scanline * image.width * 3);
    jpeg_write_scanlines(&codec, &row, 1);
  }
  jpeg_finish_compress(&codec);
  return true;
}

std::vector<std::uint8_t> jpegOf(const RGBImage& image) {
  JPEG jpeg;
  if (!compress(image, jpeg)) throw Failure(std::string("cannot encode the picture: ") + jpeg.reason);
  return {jpeg.bytes, jpeg.bytes + jpeg.size};
}

std::vector<std::uint8_t> pngOf(const RGBImage& image) {
  png_image header{};
  header.version = PNG_IMAGE_VERSION;
  header.format = PNG_FORMAT_RGB;
  header.width = static_cast<png_uint_32>(image.width);
  header.height = static_cast<png_uint_32>(image.height);
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(header);
  std::vector<std::uint8_t> bytes(size);
  if (png_image_write_to_memory(&header, bytes.data(), &size, 0, image.pixels.data(), 0, nullptr) == 0) {
    throw Failure(std::string("cannot encode the picture: ") + header.message);
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace

ImageFormat imageFormatOf(const std::string& path) {
  const std::string ending = std::filesystem::path(path).extension();
  const auto is = [&](const char* wanted) { return ::strcasecmp(ending.c_str(), wanted) == 0; };
  if (is(".jpg") || is(".jpeg")) return ImageFormat::jpeg;
  if (is(".png") || path == "-") return ImageFormat::png;
  throw UsageError("a picture is a file that ends in .png, .jpg or .jpeg, or - for standard output, not \"" + path +
                   "\"");
}

std::vector<std::uint8_t> encoded(const RGBImage& image, ImageFormat format) {
  if (image.width == 0 || image.height == 0) throw Failure("a picture without pixels cannot be saved");
  return format == ImageFormat::jpeg ? jpegOf(image) : pngOf(image);
}

}  // namespace brvhost

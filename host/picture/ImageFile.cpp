#include "picture/ImageFile.h"

#include <png.h>
#include <strings.h>

#include <filesystem>

#include "common/Failure.h"
#include "picture/JPEGFile.h"

namespace brvhost {

namespace {

constexpr int JPEGQuality = 92;

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
  if (format == ImageFormat::png) return pngOf(image);
  const JPEGFile file({image.pixels, image.width, image.height, 3, JPEGQuality, false});
  return {file.bytes().begin(), file.bytes().end()};
}

}  // namespace brvhost

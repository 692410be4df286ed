#include "picture/PNGWriter.h"

#include <png.h>

#include <csetjmp>
#include <exception>

#include "common/Failure.h"
#include "record/OutputFile.h"

namespace brvhost {

namespace {

/// What libpng's callbacks reach through its pointers. Lives outside the function that libpng may jump back into.
struct Encoding {
  const RGBImage& image;
  std::vector<std::uint8_t> bytes;
  std::string error;
};

void noteError(png_structp png, png_const_charp message) {
  try {
    static_cast<Encoding*>(png_get_error_ptr(png))->error = message;
  } catch (const std::exception&) {
    // Without memory for the reason, the failure itself still counts.
  }
  png_longjmp(png, 1);
}

void ignoreWarning(png_structp, png_const_charp) {}

bool append(std::vector<std::uint8_t>& bytes, const png_byte* data, std::size_t count) {
  try {
    bytes.insert(bytes.end(), data, data + count);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void writeBytes(png_structp png, png_bytep data, std::size_t count) {
  if (!append(static_cast<Encoding*>(png_get_io_ptr(png))->bytes, data, count)) png_error(png, "out of memory");
}

void flushNothing(png_structp) {}

/// Holds no object with a destructor: errors leave it by longjmp.
bool runEncoder(Encoding& encoding) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &encoding, noteError, ignoreWarning);
  if (png == nullptr) return false;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr || setjmp(png_jmpbuf(png)) != 0) {
    png_destroy_write_struct(&png, &info);
    return false;
  }

  png_set_write_fn(png, &encoding, writeBytes, flushNothing);
  png_set_IHDR(png, info, static_cast<png_uint_32>(encoding.image.width),
               static_cast<png_uint_32>(encoding.image.height), 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (std::size_t line = 0; line < encoding.image.height; ++line) {
    png_write_row(png, encoding.image.pixels.data() + line * encoding.image.width * 3);
  }
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

std::vector<std::uint8_t> encodePNG(const RGBImage& image) {
  if (image.width == 0 || image.height == 0 || image.pixels.size() != image.width * image.height * 3) {
    throw Failure("a picture without pixels cannot be saved");
  }
  Encoding encoding{image, {}, {}};
  if (!runEncoder(encoding)) {
    throw Failure("cannot encode the picture: " + (encoding.error.empty() ? "out of memory" : encoding.error));
  }
  return std::move(encoding.bytes);
}

void writePNG(const std::string& path, const RGBImage& image) {
  const std::vector<std::uint8_t> bytes = encodePNG(image);
  OutputFile file(path);
  file.write(bytes.data(), bytes.size());
  file.close();
}

}  // namespace brvhost

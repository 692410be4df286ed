#include "picture/JPEGFile.h"

#include <cstdio>  // jpeglib.h needs FILE

#include <jpeglib.h>

#include <csetjmp>
#include <cstdlib>
#include <string>

#include "common/Failure.h"

namespace brvhost {

namespace {

/// libjpeg at work. Lives outside the function that libjpeg may jump back into.
struct Compression {
  jpeg_compress_struct codec{};
  jpeg_error_mgr errors{};
  std::jmp_buf failed;
  char reason[JMSG_LENGTH_MAX] = "";

  Compression() = default;
  Compression(const Compression&) = delete;
  Compression& operator=(const Compression&) = delete;
  ~Compression() { jpeg_destroy_compress(&codec); }
};

[[noreturn]] void giveUp(j_common_ptr codec) {
  auto& compression = *static_cast<Compression*>(codec->client_data);
  codec->err->format_message(codec, compression.reason);
  std::longjmp(compression.failed, 1);
}

/// Holds no object with a destructor: errors leave it by longjmp.
bool compress(const JPEGPicture& picture, Compression& compression, unsigned char** bytes, unsigned long* size) {
  jpeg_compress_struct& codec = compression.codec;
  codec.err = jpeg_std_error(&compression.errors);
  compression.errors.error_exit = giveUp;
  codec.client_data = &compression;
  if (setjmp(compression.failed) != 0) return false;

  jpeg_create_compress(&codec);
  jpeg_mem_dest(&codec, bytes, size);
  codec.image_width = static_cast<JDIMENSION>(picture.width);
  codec.image_height = static_cast<JDIMENSION>(picture.height);
  codec.input_components = static_cast<int>(picture.pixelBytes);
  codec.in_color_space = picture.pixelBytes == 4 ? JCS_EXT_BGRX : JCS_RGB;
  jpeg_set_defaults(&codec);
  jpeg_set_quality(&codec, picture.quality, TRUE);
  if (picture.isForScreen)
    codec.dct_method = JDCT_IFAST;
  else
    codec.comp_info[0].v_samp_factor = 1;  // 4:2:2, as it came
  jpeg_start_compress(&codec, TRUE);
  while (codec.next_scanline < codec.image_height) {
    const std::size_t offset = codec.next_scanline * picture.width * picture.pixelBytes;
    auto* row = const_cast<JSAMPROW>(picture.pixels.data() + offset);
    jpeg_write_scanlines(&codec, &row, 1);
  }
  jpeg_finish_compress(&codec);
  return true;
}

}  // namespace

JPEGFile::JPEGFile(const JPEGPicture& picture) {
  Compression compression;
  if (compress(picture, compression, &_bytes, &_size)) return;
  std::free(_bytes);
  throw Failure(std::string("cannot encode the picture: ") + compression.reason);
}

JPEGFile::~JPEGFile() {
  std::free(_bytes);
}

}  // namespace brvhost

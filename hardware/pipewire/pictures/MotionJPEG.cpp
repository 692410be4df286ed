#include "MotionJPEG.h"

#include <cstdio>  // jpeglib.h needs FILE

#include <jerror.h>
#include <jpeglib.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <new>

#include "YUVSRows.h"

namespace hardware::pipewire {

/// libjpeg reports a failure by leaving its functions with longjmp, which would skip destructors: the functions from
/// here to it, up to `write`, have nothing but plain values.
class MotionJPEG::Decoder {
 public:
  ~Decoder() { jpeg_destroy_decompress(&_info); }

  bool write(const Plane& compressed, const YUVSRows& picture, Scratch& scratch) {
    if (setjmp(_failed)) {
      _isCreated ? jpeg_abort_decompress(&_info) : jpeg_destroy_decompress(&_info);
      return false;
    }
    if (!_isCreated) create();
    const bool isWhole = decode(compressed, picture, scratch);
    // Nobody asks whether the picture's end is right once all rows are there; with many a camera it is not.
    jpeg_abort_decompress(&_info);
    return isWhole;
  }

 private:
  static constexpr std::size_t ComponentCount = 3;
  static constexpr std::size_t MostRows = MAX_SAMP_FACTOR * DCTSIZE;

  /// Where one component of a strip, the least that can be decoded, lies in the scratch memory.
  struct StripPlane {
    std::uint8_t* samples;
    int stride;
    int rowCount;
  };
  using Strip = std::array<StripPlane, ComponentCount>;

  static Decoder& of(j_common_ptr common) { return *static_cast<Decoder*>(common->client_data); }

  void create();
  void start(const Plane& compressed);
  bool isReadable(const YUVSRows& picture);
  bool decode(const Plane& compressed, const YUVSRows& picture, Scratch& scratch);
  bool layStrip(Strip& strip, Scratch& scratch) const;
  void writeStrip(const Strip& strip, const YUVSRows& rows) const;

  static void* allocate(j_common_ptr common, int pool, std::size_t size);

  jpeg_decompress_struct _info{};
  jpeg_error_mgr _errors{};
  std::jmp_buf _failed{};
  bool _isCreated = false;

  // What the library takes for one picture: some 30 kilobytes for one in a single scan.
  alignas(64) std::array<std::uint8_t, 65536> _memory;
  std::size_t _memoryUsed = 0;
  void* (*_allocateLarge)(j_common_ptr common, int pool, std::size_t size) = nullptr;
};

void MotionJPEG::Decoder::create() {
  _info.err = jpeg_std_error(&_errors);
  _info.client_data = this;
  _errors.error_exit = [](j_common_ptr common) { std::longjmp(of(common)._failed, 1); };
  // Counts warnings, and prints nothing. That it reads ahead beyond the last byte is none: it is another when it needs
  // more than there is.
  _errors.emit_message = [](j_common_ptr common, int level) {
    if (level < 0 && common->err->msg_code != JWRN_JPEG_EOF) ++common->err->num_warnings;
  };
  jpeg_create_decompress(&_info);
  _allocateLarge = _info.mem->alloc_large;
  _info.mem->alloc_small = allocate;
  _info.mem->alloc_large = allocate;
  _isCreated = true;
}

/// In place of the library's allocations, so that pictures need none of the heap's. What there is no room for comes
/// from the library all the same, and lasts as long as the picture.
void* MotionJPEG::Decoder::allocate(j_common_ptr common, int, std::size_t size) {
  Decoder& self = of(common);
  const std::size_t left = self._memory.size() - self._memoryUsed;
  if (size > left) return self._allocateLarge(common, JPOOL_IMAGE, size);
  void* const allocated = self._memory.data() + self._memoryUsed;
  self._memoryUsed += std::min(left, (size + 63) / 64 * 64);
  return allocated;
}

/// Forgets all of the picture before, its tables too: none is decoded with those of another.
void MotionJPEG::Decoder::start(const Plane& compressed) {
  _memoryUsed = 0;
  _info.src = nullptr;
  std::fill(std::begin(_info.quant_tbl_ptrs), std::end(_info.quant_tbl_ptrs), nullptr);
  std::fill(std::begin(_info.dc_huff_tbl_ptrs), std::end(_info.dc_huff_tbl_ptrs), nullptr);
  std::fill(std::begin(_info.ac_huff_tbl_ptrs), std::end(_info.ac_huff_tbl_ptrs), nullptr);
  jpeg_mem_src(&_info, compressed.bytes, compressed.size);
}

/// Whether it is as announced, and luma and chroma as cameras send them. Cameras use a single scan; more would need the
/// whole picture's coefficients in memory, and any amount of time. They use Huffman codes; of others, the library does
/// not say when some are missing.
bool MotionJPEG::Decoder::isReadable(const YUVSRows& picture) {
  if (_info.image_width != static_cast<JDIMENSION>(picture.width) ||
      _info.image_height != static_cast<JDIMENSION>(picture.count) || jpeg_has_multiple_scans(&_info)) {
    return false;
  }
  if (_info.jpeg_color_space == JCS_GRAYSCALE) return true;
  if (_info.jpeg_color_space != JCS_YCbCr) return false;
  const jpeg_component_info& luma = _info.comp_info[0];
  const jpeg_component_info& cb = _info.comp_info[1];
  const jpeg_component_info& cr = _info.comp_info[2];
  const auto isWholeOrHalf = [](int chroma, int all) { return chroma == all || 2 * chroma == all; };
  return luma.h_samp_factor == _info.max_h_samp_factor && luma.v_samp_factor == _info.max_v_samp_factor &&
         cb.h_samp_factor == cr.h_samp_factor && cb.v_samp_factor == cr.v_samp_factor &&
         isWholeOrHalf(cb.h_samp_factor, luma.h_samp_factor) && isWholeOrHalf(cb.v_samp_factor, luma.v_samp_factor);
}

bool MotionJPEG::Decoder::decode(const Plane& compressed, const YUVSRows& picture, Scratch& scratch) {
  start(compressed);
  jpeg_read_header(&_info, TRUE);
  Strip strip;
  if (!isReadable(picture) || !layStrip(strip, scratch)) return false;

  JSAMPROW rows[ComponentCount][MostRows];
  JSAMPARRAY components[ComponentCount] = {rows[0], rows[1], rows[2]};
  for (std::size_t i = 0; i < ComponentCount; ++i) {
    for (int y = 0; y < strip[i].rowCount; ++y) {
      rows[i][y] = strip[i].samples + std::ptrdiff_t{strip[i].stride} * y;
    }
  }

  _info.raw_data_out = TRUE;
  jpeg_start_decompress(&_info);
  // What was odd about the header did no harm; from here on a warning means that pixels are wrong.
  _errors.num_warnings = 0;
  for (int y = 0; y < picture.count; y += strip[0].rowCount) {
    jpeg_read_raw_data(&_info, components, static_cast<JDIMENSION>(strip[0].rowCount));
    if (_errors.num_warnings > 0) return false;
    writeStrip(strip, {picture.bytes + std::ptrdiff_t{picture.stride} * y, picture.stride, picture.width,
                       std::min(strip[0].rowCount, picture.count - y)});
  }
  return true;
}

bool MotionJPEG::Decoder::layStrip(Strip& strip, Scratch& scratch) const {
  strip = {};
  const auto columns = static_cast<int>(_info.max_h_samp_factor * DCTSIZE);
  const int units = (static_cast<int>(_info.image_width) + columns - 1) / columns;
  std::size_t size = 0;
  for (int i = 0; i < _info.num_components; ++i) {
    const jpeg_component_info& component = _info.comp_info[i];
    strip[static_cast<std::size_t>(i)] = {nullptr, units * component.h_samp_factor * DCTSIZE,
                                          component.v_samp_factor * DCTSIZE};
    size += static_cast<std::size_t>(strip[static_cast<std::size_t>(i)].stride) * MostRows;
  }
  std::uint8_t* bytes = scratch.bytes(size);
  if (!bytes) return false;
  for (StripPlane& plane : strip) {
    plane.samples = bytes;
    bytes += static_cast<std::size_t>(plane.stride) * MostRows;
  }
  return true;
}

void MotionJPEG::Decoder::writeStrip(const Strip& strip, const YUVSRows& rows) const {
  const PlaneRows luma{strip[0].samples, strip[0].stride};
  if (_info.num_components == 1) {
    writeGray(rows, luma);
  } else {
    std::array<PlaneRows, 2> chroma;
    for (std::size_t i = 0; i < chroma.size(); ++i) {
      const auto [samples, stride, rowCount] = strip[i + 1];
      chroma[i] = {samples, stride};
      if (stride < strip[0].stride) continue;
      repeatLastOfOddRows(samples, static_cast<std::size_t>(stride), rows.width, rowCount);
      halve(samples, static_cast<std::size_t>(stride) * static_cast<std::size_t>(rowCount) / 2);
      chroma[i].stride /= 2;
    }
    const bool isEach = strip[1].rowCount == strip[0].rowCount;
    writePlanes(rows, luma, chroma[0], chroma[1], isEach ? ChromaRows::each : ChromaRows::everySecond);
  }
  finish(rows, true);
}

MotionJPEG::MotionJPEG() noexcept = default;
MotionJPEG::~MotionJPEG() = default;

bool MotionJPEG::write(const Plane& compressed, std::int32_t width, std::int32_t height, std::uint8_t* rows,
                       int rowBytes) noexcept {
  if (!_decoder) _decoder.reset(new (std::nothrow) Decoder);
  return _decoder && compressed.bytes && _decoder->write(compressed, {rows, rowBytes, width, height}, _scratch);
}

}  // namespace hardware::pipewire

#include "Pictures.h"

#include <cmath>
#include <cstring>
#include <numeric>

namespace brvgst {

namespace {

template <typename Value>
struct Name {
  CFStringRef attached;
  Value value;
};

template <typename Value, std::size_t Count>
void look(CFTypeRef attached, const Name<Value> (&names)[Count], Value& found) {
  for (const auto& [name, value] : names) {
    if (attached == name) found = value;
  }
}

/// Keeps its pixels readable as long as a buffer shows them.
struct Lent {
  explicit Lent(std::shared_ptr<const Picture> shown)
      : picture(std::move(shown)), pixels(picture->frame.pixelBuffer()) {}

  const std::shared_ptr<const Picture> picture;
  const brv::Pixels pixels;
};

}  // namespace

std::pair<int, int> fractionOf(float ratio) {
  const double wanted = ratio;
  if (!(wanted > 0.001 && wanted < 1000)) return {1, 1};
  int denominator = 1;
  const auto error = [&] { return std::abs(std::round(wanted * denominator) / denominator - wanted); };
  while (error() > wanted * 1e-6 && denominator < 1000) ++denominator;
  return {static_cast<int>(std::lround(wanted * denominator)), denominator};
}

PictureFormat::PictureFormat(const Picture& picture)
    : width(static_cast<int>(CVPixelBufferGetWidth(picture.frame.pixelBuffer()))),
      height(static_cast<int>(CVPixelBufferGetHeight(picture.frame.pixelBuffer()))),
      ticksPerSecond(picture.ticksPerSecond),
      frameDuration(picture.frameDuration),
      pixelAspectRatio(picture.frame.record().pixelAspectRatio) {
  const CVPixelBufferRef buffer = picture.frame.pixelBuffer();
  matrix = CVBufferGetAttachment(buffer, kCVImageBufferYCbCrMatrixKey, nullptr);
  primaries = CVBufferGetAttachment(buffer, kCVImageBufferColorPrimariesKey, nullptr);
  transfer = CVBufferGetAttachment(buffer, kCVImageBufferTransferFunctionKey, nullptr);
}

GstVideoInfo PictureFormat::info() const {
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_YUY2, static_cast<guint>(width), static_cast<guint>(height));
  std::tie(info.par_n, info.par_d) = fractionOf(pixelAspectRatio);
  info.fps_n = 0;
  info.fps_d = 1;
  if (ticksPerSecond > 0 && frameDuration > 0 && frameDuration <= G_MAXINT) {
    const auto common = std::gcd(ticksPerSecond, frameDuration);
    info.fps_n = static_cast<int>(ticksPerSecond / common);
    info.fps_d = static_cast<int>(frameDuration / common);
  }
  // What is not attached stays what is customary for the size.
  static const Name<GstVideoColorMatrix> Matrices[] = {
      {kCVImageBufferYCbCrMatrix_ITU_R_709_2, GST_VIDEO_COLOR_MATRIX_BT709},
      {kCVImageBufferYCbCrMatrix_ITU_R_601_4, GST_VIDEO_COLOR_MATRIX_BT601},
      {kCVImageBufferYCbCrMatrix_SMPTE_240M_1995, GST_VIDEO_COLOR_MATRIX_SMPTE240M},
      {kCVImageBufferYCbCrMatrix_ITU_R_2020, GST_VIDEO_COLOR_MATRIX_BT2020}};
  static const Name<GstVideoColorPrimaries> Primaries[] = {
      {kCVImageBufferColorPrimaries_ITU_R_709_2, GST_VIDEO_COLOR_PRIMARIES_BT709},
      {kCVImageBufferColorPrimaries_EBU_3213, GST_VIDEO_COLOR_PRIMARIES_BT470BG},
      {kCVImageBufferColorPrimaries_SMPTE_C, GST_VIDEO_COLOR_PRIMARIES_SMPTE170M},
      {kCVImageBufferColorPrimaries_ITU_R_2020, GST_VIDEO_COLOR_PRIMARIES_BT2020}};
  static const Name<GstVideoTransferFunction> Transfers[] = {
      {kCVImageBufferTransferFunction_ITU_R_709_2, GST_VIDEO_TRANSFER_BT709},
      {kCVImageBufferTransferFunction_SMPTE_240M_1995, GST_VIDEO_TRANSFER_SMPTE240M},
      {kCVImageBufferTransferFunction_sRGB, GST_VIDEO_TRANSFER_SRGB},
      {kCVImageBufferTransferFunction_ITU_R_2020, GST_VIDEO_TRANSFER_BT2020_10}};
  look(matrix, Matrices, info.colorimetry.matrix);
  look(primaries, Primaries, info.colorimetry.primaries);
  look(transfer, Transfers, info.colorimetry.transfer);
  info.colorimetry.range = GST_VIDEO_COLOR_RANGE_16_235;
  return info;
}

bool hasUsualRows(const Picture& picture, const GstVideoInfo& info) {
  return CVPixelBufferGetBytesPerRow(picture.frame.pixelBuffer()) ==
         static_cast<std::size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
}

BufferPtr bufferOf(std::shared_ptr<const Picture> picture, const GstVideoInfo& info) {
  auto lent = std::make_unique<Lent>(std::move(picture));
  const auto bytes = lent->pixels.bytes();
  const auto stride = static_cast<gint>(lent->pixels.rowBytes());
  // Read-only memory: whoever wants to write gets a copy.
  BufferPtr buffer(gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, const_cast<std::uint8_t*>(bytes.data()),
                                               bytes.size(), 0, bytes.size(), lent.release(),
                                               [](gpointer data) { delete static_cast<Lent*>(data); }));
  gsize offsets[GST_VIDEO_MAX_PLANES] = {};
  gint strides[GST_VIDEO_MAX_PLANES] = {stride};
  gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_YUY2,
                                 static_cast<guint>(info.width), static_cast<guint>(info.height), 1, offsets, strides);
  return buffer;
}

BufferPtr copyOf(const Picture& picture, const GstVideoInfo& info) {
  BufferPtr buffer(gst_buffer_new_allocate(nullptr, info.size, nullptr));
  GstMapInfo map;
  if (!buffer || !gst_buffer_map(buffer.get(), &map, GST_MAP_WRITE)) return nullptr;
  const brv::Pixels pixels = picture.frame.pixels();
  const auto stride = static_cast<std::size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
  for (std::size_t y = 0; y < pixels.height(); ++y) {
    const auto row = pixels.row(y);
    std::memcpy(map.data + y * stride, row.data(), row.size());
  }
  gst_buffer_unmap(buffer.get(), &map);
  return buffer;
}

}  // namespace brvgst

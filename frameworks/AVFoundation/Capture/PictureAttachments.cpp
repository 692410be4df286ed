#include <AVFoundation/Capture/PictureAttachments.h>

namespace {

CFStringRef nameOf(hardware::VideoColor::Matrix matrix) {
  using Matrix = hardware::VideoColor::Matrix;
  switch (matrix) {
    case Matrix::ITU_R_601_4:
      return kCVImageBufferYCbCrMatrix_ITU_R_601_4;
    case Matrix::ITU_R_709_2:
      return kCVImageBufferYCbCrMatrix_ITU_R_709_2;
    case Matrix::SMPTE_240M_1995:
      return kCVImageBufferYCbCrMatrix_SMPTE_240M_1995;
    case Matrix::ITU_R_2020:
      return kCVImageBufferYCbCrMatrix_ITU_R_2020;
  }
  return nullptr;
}

CFStringRef nameOf(hardware::VideoColor::Primaries primaries) {
  using Primaries = hardware::VideoColor::Primaries;
  switch (primaries) {
    case Primaries::ITU_R_709_2:
      return kCVImageBufferColorPrimaries_ITU_R_709_2;
    case Primaries::EBU_3213:
      return kCVImageBufferColorPrimaries_EBU_3213;
    case Primaries::SMPTE_C:
      return kCVImageBufferColorPrimaries_SMPTE_C;
    case Primaries::ITU_R_2020:
      return kCVImageBufferColorPrimaries_ITU_R_2020;
  }
  return nullptr;
}

CFStringRef nameOf(hardware::VideoColor::Transfer transfer) {
  using Transfer = hardware::VideoColor::Transfer;
  switch (transfer) {
    case Transfer::ITU_R_709_2:
      return kCVImageBufferTransferFunction_ITU_R_709_2;
    case Transfer::SMPTE_240M_1995:
      return kCVImageBufferTransferFunction_SMPTE_240M_1995;
    case Transfer::sRGB:
      return kCVImageBufferTransferFunction_sRGB;
    case Transfer::ITU_R_2020:
      return kCVImageBufferTransferFunction_ITU_R_2020;
  }
  return nullptr;
}

template <typename Value>
void attach(CVImageBufferRef image, CFStringRef key, const std::optional<Value>& value) {
  if (value) CVBufferSetAttachment(image, key, nameOf(*value), kCVAttachmentMode_ShouldPropagate);
}

}  // namespace

void attachColor(CVImageBufferRef image, const hardware::VideoColor& color) {
  attach(image, kCVImageBufferYCbCrMatrixKey, color.matrix);
  attach(image, kCVImageBufferColorPrimariesKey, color.primaries);
  attach(image, kCVImageBufferTransferFunctionKey, color.transfer);
}

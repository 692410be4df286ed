#include <CoreVideo/CVImageBuffer.h>

#include <CoreVideo/Objects/OpaqueCVBuffer.h>
#include <Foundation/NSDictionary+Numbers.h>

#include <new>

const CFStringRef kCVImageBufferPixelAspectRatioKey = NSString::constant("CVPixelAspectRatio");
const CFStringRef kCVImageBufferPixelAspectRatioHorizontalSpacingKey = NSString::constant("HorizontalSpacing");
const CFStringRef kCVImageBufferPixelAspectRatioVerticalSpacingKey = NSString::constant("VerticalSpacing");
const CFStringRef kCVImageBufferDisplayDimensionsKey = NSString::constant("CVDisplayDimensions");
const CFStringRef kCVImageBufferDisplayWidthKey = NSString::constant("Width");
const CFStringRef kCVImageBufferDisplayHeightKey = NSString::constant("Height");
const CFStringRef kCVImageBufferYCbCrMatrixKey = NSString::constant("CVImageBufferYCbCrMatrix");
const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_709_2 = NSString::constant("ITU_R_709_2");
const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_601_4 = NSString::constant("ITU_R_601_4");
const CFStringRef kCVImageBufferYCbCrMatrix_SMPTE_240M_1995 = NSString::constant("SMPTE_240M_1995");
const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_2020 = NSString::constant("ITU_R_2020");
const CFStringRef kCVImageBufferColorPrimariesKey = NSString::constant("CVImageBufferColorPrimaries");
const CFStringRef kCVImageBufferColorPrimaries_ITU_R_709_2 = NSString::constant("ITU_R_709_2");
const CFStringRef kCVImageBufferColorPrimaries_EBU_3213 = NSString::constant("EBU_3213");
const CFStringRef kCVImageBufferColorPrimaries_SMPTE_C = NSString::constant("SMPTE_C");
const CFStringRef kCVImageBufferColorPrimaries_ITU_R_2020 = NSString::constant("ITU_R_2020");
const CFStringRef kCVImageBufferTransferFunctionKey = NSString::constant("CVImageBufferTransferFunction");
const CFStringRef kCVImageBufferTransferFunction_ITU_R_709_2 = NSString::constant("ITU_R_709_2");
const CFStringRef kCVImageBufferTransferFunction_SMPTE_240M_1995 = NSString::constant("SMPTE_240M_1995");
const CFStringRef kCVImageBufferTransferFunction_sRGB = NSString::constant("IEC_sRGB");
const CFStringRef kCVImageBufferTransferFunction_ITU_R_2020 = NSString::constant("ITU_R_2020");

const OpaqueCVBuffer::Attachment* OpaqueCVBuffer::attachmentByText(CFStringRef key) const noexcept {
  for (const Attachment& entry : _attachments) {
    if (entry.key->text() == key->text()) return &entry;
  }
  return nullptr;
}

void OpaqueCVBuffer::setAttachment(CFStringRef key, CFTypeRef value, CVAttachmentMode mode) {
  auto retained = Ref<const NSObject>::retain(static_cast<const NSObject*>(value));
  if (const Attachment* found = attachment(key)) {
    auto& entry = const_cast<Attachment&>(*found);
    entry.value = std::move(retained);
    entry.mode = mode;
  } else {
    _attachments.push_back({Ref<const OpaqueCFString>::retain(key), std::move(retained), mode});
  }
  updateDisplaySize();
}

void OpaqueCVBuffer::removeAllAttachments() noexcept {
  _attachments.clear();
  updateDisplaySize();
}

// Kept up to date when attachments change, which is rarer than asking for the size and not on a deadline.
void OpaqueCVBuffer::updateDisplaySize() noexcept {
  _displaySize = {static_cast<double>(_layout.width), static_cast<double>(_layout.height)};
  const Attachment* dimensions = attachment(kCVImageBufferDisplayDimensionsKey);
  if (!dimensions) return;

  const NSDictionary* dictionary = dynamic_cast<const NSDictionary*>(dimensions->value.get());
  const double width = positiveNumberForKey(dictionary, kCVImageBufferDisplayWidthKey);
  const double height = positiveNumberForKey(dictionary, kCVImageBufferDisplayHeightKey);
  if (width > 0 && height > 0) _displaySize = {width, height};
}

CVBufferRef CVBufferRetain(CVBufferRef buffer) {
  if (buffer) buffer->retain();
  return buffer;
}

void CVBufferRelease(CVBufferRef buffer) {
  if (buffer) buffer->release();
}

void CVBufferSetAttachment(CVBufferRef buffer, CFStringRef key, CFTypeRef value, CVAttachmentMode attachmentMode) {
  if (!buffer || !key || !value) return;
  try {
    buffer->setAttachment(key, value, attachmentMode);
  } catch (const std::bad_alloc&) {
    // The interface has no way to say so; the buffer is as it was.
  }
}

void CVBufferRemoveAllAttachments(CVBufferRef buffer) {
  if (buffer) buffer->removeAllAttachments();
}

CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key, CVAttachmentMode* attachmentMode) {
  if (!buffer || !key) return nullptr;
  const OpaqueCVBuffer::Attachment* attachment = buffer->attachment(key);
  if (!attachment) return nullptr;
  if (attachmentMode) *attachmentMode = attachment->mode;
  return attachment->value.get();
}

CGSize CVImageBufferGetDisplaySize(CVImageBufferRef imageBuffer) {
  return imageBuffer ? imageBuffer->displaySize() : CGSize{0, 0};
}

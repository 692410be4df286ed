#include <CoreVideo/CVPixelBuffer.h>

#include <CoreVideo/Objects/CVPixelBufferStore.h>
#include <CoreVideo/Objects/OpaqueCVBuffer.h>
#include <Foundation/NSString.h>

#include <new>
#include <utility>

const CFStringRef kCVPixelBufferPixelFormatTypeKey = NSString::constant("PixelFormatType");
const CFStringRef kCVPixelBufferWidthKey = NSString::constant("Width");
const CFStringRef kCVPixelBufferHeightKey = NSString::constant("Height");
const CFStringRef kCVPixelBufferIOSurfacePropertiesKey = NSString::constant("IOSurfaceProperties");

namespace {

constexpr std::size_t kAlignment = 64;
constexpr std::size_t kMaximumExtent = 32768;
constexpr std::size_t kUsualAttachments = 4;

constexpr std::size_t roundUp(std::size_t value, std::size_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

}  // namespace

CVReturn CVPixelLayout::make(std::size_t width, std::size_t height, OSType format, CVPixelLayout* layoutOut) noexcept {
  if (format != kCVPixelFormatType_422YpCbCr8_yuvs) return kCVReturnInvalidPixelFormat;
  if (width == 0 || height == 0 || width > kMaximumExtent || height > kMaximumExtent) return kCVReturnInvalidSize;

  // Two pixels share their colour samples and so always come as a pair of 4 bytes.
  const std::size_t pixelBytes = roundUp(width, 2) * 2;
  *layoutOut = {.width = width, .height = height, .bytesPerRow = roundUp(pixelBytes, kAlignment), .format = format};
  return kCVReturnSuccess;
}

Ref<OpaqueCVBuffer> OpaqueCVBuffer::create(const CVPixelLayout& layout,
                                           std::shared_ptr<CVPixelBufferStore> store) noexcept {
  // A whole number of 64-byte rows, as aligned_alloc asks.
  Pixels pixels(static_cast<std::byte*>(std::aligned_alloc(kAlignment, layout.dataSize())));
  if (!pixels) return {};
  try {
    return Ref<OpaqueCVBuffer>::adopt(new OpaqueCVBuffer(layout, std::move(pixels), std::move(store)));
  } catch (const std::bad_alloc&) {
    return {};
  }
}

OpaqueCVBuffer::OpaqueCVBuffer(const CVPixelLayout& layout, Pixels pixels, std::shared_ptr<CVPixelBufferStore> store)
    : _layout(layout), _pixels(std::move(pixels)), _store(std::move(store)) {
  _attachments.reserve(kUsualAttachments);
  updateDisplaySize();
}

void OpaqueCVBuffer::dispose() {
  if (!_store) {
    delete this;
    return;
  }
  removeAllAttachments();
  _lockCount.store(0, std::memory_order_relaxed);
  // Once given back, the buffer may at any moment be someone else's, or gone together with its pool.
  const std::shared_ptr<CVPixelBufferStore> store = _store;
  store->giveBack(this);
}

bool OpaqueCVBuffer::unlock() noexcept {
  std::uint32_t count = _lockCount.load(std::memory_order_relaxed);
  while (count > 0) {
    if (_lockCount.compare_exchange_weak(count, count - 1, std::memory_order_relaxed)) return true;
  }
  return false;
}

CVReturn CVPixelBufferCreate(CFAllocatorRef, size_t width, size_t height, OSType pixelFormatType, CFDictionaryRef,
                             CVPixelBufferRef* pixelBufferOut) {
  if (!pixelBufferOut) return kCVReturnInvalidArgument;
  *pixelBufferOut = nullptr;
  CVPixelLayout layout;
  const CVReturn status = CVPixelLayout::make(width, height, pixelFormatType, &layout);
  if (status != kCVReturnSuccess) return status;
  *pixelBufferOut = OpaqueCVBuffer::create(layout, nullptr).leak();
  return *pixelBufferOut ? kCVReturnSuccess : kCVReturnAllocationFailed;
}

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef pixelBuffer) {
  return CVBufferRetain(pixelBuffer);
}

void CVPixelBufferRelease(CVPixelBufferRef pixelBuffer) {
  CVBufferRelease(pixelBuffer);
}

CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags) {
  if (!pixelBuffer) return kCVReturnInvalidArgument;
  pixelBuffer->lock();
  return kCVReturnSuccess;
}

CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags) {
  if (!pixelBuffer) return kCVReturnInvalidArgument;
  return pixelBuffer->unlock() ? kCVReturnSuccess : kCVReturnError;
}

void* CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer ? pixelBuffer->baseAddress() : nullptr;
}

size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer ? pixelBuffer->layout().bytesPerRow : 0;
}

size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer ? pixelBuffer->layout().width : 0;
}

size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer ? pixelBuffer->layout().height : 0;
}

OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer ? pixelBuffer->layout().format : 0;
}

size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer ? pixelBuffer->layout().dataSize() : 0;
}

#pragma once

// Pixel buffers of the module, kept past the callback that brought them, and their bytes while they are looked at.

#include <CoreVideo/CVPixelBuffer.h>

#include <utility>

#include "Repack.h"

namespace brvhost {

/// Holds a pixel buffer, or none.
class PixelBuffer {
 public:
  PixelBuffer() = default;
  ~PixelBuffer() { reset(); }
  PixelBuffer(PixelBuffer&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
  PixelBuffer& operator=(PixelBuffer&& other) noexcept {
    std::swap(buffer_, other.buffer_);
    return *this;
  }

  /// Keeps `buffer`, which may be null.
  static PixelBuffer retain(CVPixelBufferRef buffer) {
    PixelBuffer held;
    held.buffer_ = CVPixelBufferRetain(buffer);
    return held;
  }

  void reset() {
    if (buffer_ != nullptr) CVPixelBufferRelease(std::exchange(buffer_, nullptr));
  }

  CVPixelBufferRef get() const { return buffer_; }
  explicit operator bool() const { return buffer_ != nullptr; }

 private:
  CVPixelBufferRef buffer_ = nullptr;
};

/// The bytes of a 'yuvs' pixel buffer, locked for reading as long as this exists. The buffer is borrowed.
class LockedPicture {
 public:
  explicit LockedPicture(CVPixelBufferRef buffer) : buffer_(buffer) {
    isLocked_ = buffer != nullptr && CVPixelBufferGetPixelFormatType(buffer) == kCVPixelFormatType_422YpCbCr8_yuvs &&
                CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly) == kCVReturnSuccess;
    if (!isLocked_) return;
    view_ = {static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(buffer)), CVPixelBufferGetBytesPerRow(buffer),
             CVPixelBufferGetWidth(buffer), CVPixelBufferGetHeight(buffer)};
  }
  ~LockedPicture() {
    if (isLocked_) CVPixelBufferUnlockBaseAddress(buffer_, kCVPixelBufferLock_ReadOnly);
  }
  LockedPicture(const LockedPicture&) = delete;
  LockedPicture& operator=(const LockedPicture&) = delete;

  /// False for another pixel format and for a buffer whose rows are too short for its width.
  bool isReadable() const {
    return isLocked_ && view_.pixels != nullptr && view_.width > 0 && view_.height > 0 &&
           view_.rowBytes >= yuvsRowBytes(view_.width);
  }
  const PictureView& view() const { return view_; }

 private:
  CVPixelBufferRef buffer_;
  bool isLocked_ = false;
  PictureView view_;
};

}  // namespace brvhost

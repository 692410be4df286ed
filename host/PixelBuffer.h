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
  PixelBuffer(PixelBuffer&& other) noexcept : _buffer(std::exchange(other._buffer, nullptr)) {}
  PixelBuffer& operator=(PixelBuffer&& other) noexcept {
    std::swap(_buffer, other._buffer);
    return *this;
  }

  /// Keeps `buffer`, which may be null.
  static PixelBuffer retain(CVPixelBufferRef buffer) {
    PixelBuffer held;
    held._buffer = CVPixelBufferRetain(buffer);
    return held;
  }

  void reset() {
    if (_buffer != nullptr) CVPixelBufferRelease(std::exchange(_buffer, nullptr));
  }

  CVPixelBufferRef get() const { return _buffer; }
  explicit operator bool() const { return _buffer != nullptr; }

 private:
  CVPixelBufferRef _buffer = nullptr;
};

/// The bytes of a 'yuvs' pixel buffer, locked for reading as long as this exists. The buffer is borrowed.
class LockedPicture {
 public:
  explicit LockedPicture(CVPixelBufferRef buffer) : _buffer(buffer) {
    _isLocked = buffer != nullptr && CVPixelBufferGetPixelFormatType(buffer) == kCVPixelFormatType_422YpCbCr8_yuvs &&
                CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly) == kCVReturnSuccess;
    if (!_isLocked) return;
    _view = {static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(buffer)), CVPixelBufferGetBytesPerRow(buffer),
             CVPixelBufferGetWidth(buffer), CVPixelBufferGetHeight(buffer)};
  }
  ~LockedPicture() {
    if (_isLocked) CVPixelBufferUnlockBaseAddress(_buffer, kCVPixelBufferLock_ReadOnly);
  }
  LockedPicture(const LockedPicture&) = delete;
  LockedPicture& operator=(const LockedPicture&) = delete;

  /// False for another pixel format and for a buffer whose rows are too short for its width.
  bool isReadable() const {
    return _isLocked && _view.pixels != nullptr && _view.width > 0 && _view.height > 0 &&
           _view.rowBytes >= yuvsRowBytes(_view.width);
  }
  const PictureView& view() const { return _view; }

 private:
  CVPixelBufferRef _buffer;
  bool _isLocked = false;
  PictureView _view;
};

}  // namespace brvhost

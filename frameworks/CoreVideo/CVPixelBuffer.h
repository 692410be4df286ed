#pragma once

// Pixel buffers: pictures whose bytes can be read and written. Rows begin on 64 bytes. Planar formats
// and IOSurfaces are not modelled (the IOSurface key is accepted and has no effect).

#include <CoreVideo/CVImageBuffer.h>

CF_EXTERN_C_BEGIN

enum {
  /// 8-bit 4:2:2 in the order Y0 Cb Y1 Cr, 2 bytes a pixel. Odd widths round up to whole pairs in memory.
  kCVPixelFormatType_422YpCbCr8_yuvs = 0x79757673,  // 'yuvs'
};

typedef uint64_t CVPixelBufferLockFlags;
typedef CVPixelBufferLockFlags CVOptionFlags;
enum { kCVPixelBufferLock_ReadOnly = 1 };

/// Keys of a video output's settings and of a pool's pixel buffer attributes: numbers, but for the IOSurface
/// dictionary.
extern const CFStringRef kCVPixelBufferPixelFormatTypeKey;
extern const CFStringRef kCVPixelBufferWidthKey;
extern const CFStringRef kCVPixelBufferHeightKey;
extern const CFStringRef kCVPixelBufferIOSurfacePropertiesKey;

/// A new pixel buffer, contents undefined, which the caller releases. kCVReturnInvalidPixelFormat for a format not
/// listed above, kCVReturnInvalidSize for 0 or more than 32,768 in either direction.
CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                             CFDictionaryRef pixelBufferAttributes, CVPixelBufferRef* pixelBufferOut);

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef pixelBuffer);
void CVPixelBufferRelease(CVPixelBufferRef pixelBuffer);

/// Makes the bytes readable (and writable without the read-only flag) until the matching unlock. Locks count; any
/// thread.
CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags lockFlags);
/// kCVReturnError when the buffer is not locked.
CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags unlockFlags);

/// The first row; null while the buffer is not locked.
void* CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer);
OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer);

CF_EXTERN_C_END

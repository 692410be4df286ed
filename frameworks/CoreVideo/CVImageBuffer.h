#pragma once

// Pictures in memory, what is attached to them, and their display size.

#include <CoreFoundation/CFDictionary.h>

CF_EXTERN_C_BEGIN

typedef int32_t CVReturn;
enum {
  kCVReturnSuccess = 0,
  kCVReturnError = -6660,
  kCVReturnInvalidArgument = -6661,
  kCVReturnAllocationFailed = -6662,
  kCVReturnInvalidPixelFormat = -6680,
  kCVReturnInvalidSize = -6681,
  kCVReturnWouldExceedAllocationThreshold = -6689,
};

typedef struct OpaqueCVBuffer* CVBufferRef;
typedef CVBufferRef CVImageBufferRef;
typedef CVImageBufferRef CVPixelBufferRef;

typedef uint32_t CVAttachmentMode;
enum { kCVAttachmentMode_ShouldNotPropagate = 0, kCVAttachmentMode_ShouldPropagate = 1 };

/// Attachment: a dictionary of the two spacings, numbers; the shape of one pixel.
extern const CFStringRef kCVImageBufferPixelAspectRatioKey;
extern const CFStringRef kCVImageBufferPixelAspectRatioHorizontalSpacingKey;
extern const CFStringRef kCVImageBufferPixelAspectRatioVerticalSpacingKey;
/// Attachment: a dictionary of two numbers, the size to show the picture at when it is not its size in memory.
extern const CFStringRef kCVImageBufferDisplayDimensionsKey;
extern const CFStringRef kCVImageBufferDisplayWidthKey;
extern const CFStringRef kCVImageBufferDisplayHeightKey;

// Attachments: how the numbers of a picture stand for colours, strings. A pixel format says itself which range of
// numbers it has: 'yuvs' has the video range, 16 to 235 for black to white.

/// How red, green and blue were turned into luma and colour differences.
extern const CFStringRef kCVImageBufferYCbCrMatrixKey;
extern const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_709_2;
extern const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_601_4;
extern const CFStringRef kCVImageBufferYCbCrMatrix_SMPTE_240M_1995;
extern const CFStringRef kCVImageBufferYCbCrMatrix_ITU_R_2020;
/// Which red, green and blue those are.
extern const CFStringRef kCVImageBufferColorPrimariesKey;
extern const CFStringRef kCVImageBufferColorPrimaries_ITU_R_709_2;
extern const CFStringRef kCVImageBufferColorPrimaries_EBU_3213;
extern const CFStringRef kCVImageBufferColorPrimaries_SMPTE_C;
extern const CFStringRef kCVImageBufferColorPrimaries_ITU_R_2020;
/// How light became numbers.
extern const CFStringRef kCVImageBufferTransferFunctionKey;
extern const CFStringRef kCVImageBufferTransferFunction_ITU_R_709_2;
extern const CFStringRef kCVImageBufferTransferFunction_SMPTE_240M_1995;
extern const CFStringRef kCVImageBufferTransferFunction_sRGB;
extern const CFStringRef kCVImageBufferTransferFunction_ITU_R_2020;

/// Null is allowed and returned. Any thread.
CVBufferRef CVBufferRetain(CVBufferRef buffer);
/// Null is allowed. Any thread.
void CVBufferRelease(CVBufferRef buffer);

/// Attaches `value`, which is retained, under `key`, in place of an earlier one. Attachments are set by the buffer's
/// maker before anyone else sees it.
void CVBufferSetAttachment(CVBufferRef buffer, CFStringRef key, CFTypeRef value, CVAttachmentMode attachmentMode);
void CVBufferRemoveAllAttachments(CVBufferRef buffer);

/// The attachment under `key`, borrowed; null when there is none. `attachmentMode` may be null.
CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key, CVAttachmentMode* attachmentMode);

/// The size to show the picture at, in pixels: the display-dimensions attachment when both its numbers are above zero,
/// or else the size in memory.
CGSize CVImageBufferGetDisplaySize(CVImageBufferRef imageBuffer);

CF_EXTERN_C_END

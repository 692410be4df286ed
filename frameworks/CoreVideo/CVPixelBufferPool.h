#pragma once

// Pools of pixel buffers, for who takes pictures. A pool hands out buffers of one size and format. A released buffer
// returns to its pool with its bytes as they were and its attachments removed, and is handed out again without a new
// allocation. Buffers outlive the pool when someone still holds them. Any thread.

#include <CoreVideo/CVPixelBuffer.h>

#include <cstdint>
#include <functional>

extern "C" {

typedef struct OpaqueCVPixelBufferPool* CVPixelBufferPoolRef;

/// Key of the pool's attributes: how many buffers are made together with the pool, a number. Where memory is short, the
/// rest are made when they are asked for.
extern const CFStringRef kCVPixelBufferPoolMinimumBufferCountKey;

/// `poolAttributes` may be null; only the key above is read. `pixelBufferAttributes` holds pixel format, width and
/// height; kCVReturnInvalidArgument when one is missing or no number, and the errors of CVPixelBufferCreate.
CVReturn CVPixelBufferPoolCreate(CFAllocatorRef allocator, CFDictionaryRef poolAttributes,
                                 CFDictionaryRef pixelBufferAttributes, CVPixelBufferPoolRef* poolOut);

/// Null is allowed.
void CVPixelBufferPoolRelease(CVPixelBufferPoolRef pool);

}  // extern "C"

/// A buffer of the pool, which the caller releases; kCVReturnWouldExceedAllocationThreshold when `threshold` buffers
/// are out. Stands in for CVPixelBufferPoolCreatePixelBufferWithAuxAttributes, for a running camera has no dictionary
/// to be read for every frame.
CVReturn CVPixelBufferPoolTake(CVPixelBufferPoolRef pool, std::uint64_t threshold, CVPixelBufferRef* bufferOut);

/// Calls `handler`, which must not throw, each time that a buffer comes back after a request exceeded its threshold: it
/// runs on the thread that let go of the buffer, with no lock of the pool's buffers held, and may not give this pool's
/// buffers back itself. Stands in for kCVPixelBufferPoolFreeBufferNotification. Before the pool is shared.
void CVPixelBufferPoolSetFreeBufferHandler(CVPixelBufferPoolRef pool, std::function<void()> handler);

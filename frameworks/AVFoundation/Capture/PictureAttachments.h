#pragma once

// What is attached to a picture beside its pixels. Private to AVFoundation.

#include <CoreVideo/CVImageBuffer.h>
#include <Hardware.h>

/// Attaches matrix, primaries and transfer function, as far as they are known. Needs no memory beyond the buffer's
/// room.
void attachColor(CVImageBufferRef image, const hardware::VideoColor& color);

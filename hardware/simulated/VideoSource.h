#pragma once

// Where a device's pictures come from: one after the other, drawn only when someone wants to see one.

#include <CoreVideo/CVPixelBuffer.h>

#include <cstdint>
#include <memory>

#include "Rig.h"

namespace hardware::simulated {

/// One thread at a time.
class VideoSource {
 public:
  virtual ~VideoSource() = default;

  /// Goes to the next picture, at first to the first one; false when there are no more.
  virtual bool advance() = 0;

  /// Draws the current picture into a locked 'yuvs' buffer; does nothing with one of another size.
  virtual void drawInto(CVPixelBufferRef pixelBuffer) = 0;

  /// Pictures have another size from the next one on. Clips keep theirs.
  virtual void setSize(std::int32_t width, std::int32_t height) = 0;
};

/// Never null; a source without pictures when a clip cannot be opened.
std::unique_ptr<VideoSource> makeVideoSource(const PictureSource& description);

}  // namespace hardware::simulated

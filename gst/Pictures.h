#pragma once

// How a picture of the module looks to GStreamer: caps, and buffers with or without a copy of its pixels.

#include <gst/video/video.h>

#include "Inbox.h"

namespace brvgst {

/// What the caps of a picture depend on. Compared with each picture.
struct PictureFormat {
  PictureFormat() = default;
  explicit PictureFormat(const Picture& picture);
  bool operator==(const PictureFormat&) const = default;

  GstVideoInfo info() const;

  int width = 0, height = 0;
  std::int64_t ticksPerSecond = 0, frameDuration = 0;
  float pixelAspectRatio = 1;
  CFTypeRef matrix = nullptr, primaries = nullptr, transfer = nullptr;  ///< names, compared by their addresses
};

/// The fraction of the smallest terms that is as near as a float can tell.
std::pair<int, int> fractionOf(float ratio);

/// Whether rows follow one another in memory as GStreamer lays them out without further word.
bool hasUsualRows(const Picture& picture, const GstVideoInfo& info);

/// A buffer that shows the picture's own pixels, and keeps them.
BufferPtr bufferOf(std::shared_ptr<const Picture> picture, const GstVideoInfo& info);
/// A buffer of its own with the same pixels; null out of memory.
BufferPtr copyOf(const Picture& picture, const GstVideoInfo& info);

}  // namespace brvgst

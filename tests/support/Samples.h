#pragma once

// Sample buffers made by hand.

#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <CoreVideo/CVPixelBuffer.h>

#include <algorithm>
#include <vector>

namespace samples {

inline CFRef<CVPixelBufferRef> picture(std::size_t width, std::size_t height) {
  CVPixelBufferRef buffer = nullptr;
  CVPixelBufferCreate(kCFAllocatorDefault, width, height, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer);
  return CFRef<CVPixelBufferRef>::adopt(buffer);
}

/// A frame at `time`; without a picture when `image` is null.
inline CFRef<CMSampleBufferRef> frame(CVPixelBufferRef image, CMTime time) {
  const CMSampleTimingInfo timing{CMTimeMake(1, 30), time, kCMTimeInvalid};
  CMSampleBufferRef sample = nullptr;
  CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, image, true, nullptr, nullptr, nullptr, &timing, &sample);
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

inline CFRef<CMBlockBufferRef> block(const std::vector<std::vector<std::uint8_t>>& pieces) {
  CMBlockBufferRef buffer = nullptr;
  CMBlockBufferCreateEmpty(kCFAllocatorDefault, 0, 0, &buffer);
  for (const auto& piece : pieces) {
    const CMBlockBufferCustomBlockSource source{
        0, nullptr, [](void*, void* bytes, size_t) { delete[] static_cast<std::uint8_t*>(bytes); }, nullptr};
    auto* bytes = new std::uint8_t[piece.size() + 1];
    std::ranges::copy(piece, bytes);
    CMBlockBufferAppendMemoryBlock(buffer, bytes, piece.size() + 1, kCFAllocatorDefault, &source, 0, piece.size(), 0);
  }
  return CFRef<CMBlockBufferRef>::adopt(buffer);
}

/// Sound of format `stream` at `time`, its bytes in the given pieces.
inline CFRef<CMSampleBufferRef> sound(const AudioStreamBasicDescription& stream, CMTime time,
                                      const std::vector<std::vector<std::uint8_t>>& pieces, CMItemCount frames) {
  CMAudioFormatDescriptionRef description = nullptr;
  CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &stream, 0, nullptr, 0, nullptr, nullptr, &description);
  const auto format = CFRef<CMAudioFormatDescriptionRef>::adopt(description);
  const auto data = block(pieces);
  CMSampleBufferRef sample = nullptr;
  CMAudioSampleBufferCreateReadyWithPacketDescriptions(kCFAllocatorDefault, data.get(), format.get(), frames, time,
                                                       nullptr, &sample);
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

}  // namespace samples

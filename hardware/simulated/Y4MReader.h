#pragma once

// Reads uncompressed clips in the YUV4MPEG2 format: 8 bits a sample, 4:2:0 in all sitings, 4:2:2, 4:4:4 and
// luma alone. One frame is in memory at a time, and only when it is asked for.

#include <CoreVideo/CVPixelBuffer.h>
#include <Hardware.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MediaFile.h"
#include "Result.h"

namespace hardware::simulated {

enum class Chroma { yuv420, yuv422, yuv444, none };

struct Y4MHeader {
  std::int32_t width = 0;
  std::int32_t height = 0;
  CMTime frameDuration{};
  PixelAspectRatio pixelAspectRatio;
  Chroma chroma = Chroma::yuv420;
  bool isInterlaced = false;

  std::size_t chromaWidth() const noexcept;
  std::size_t chromaHeight() const noexcept;
  /// The size of a frame in bytes: luma, Cb, Cr, without padding.
  std::size_t frameSize() const noexcept;
};

/// Reads the first line of a clip, without its line end.
Result<Y4MHeader> parseY4MHeader(std::string_view line);

/// Writes a frame in a clip's layout as 'yuvs' rows. 4:2:2 samples go through as they are. Missing chroma rows are the
/// nearest one's (of the same field in an interlaced clip), surplus columns are averaged in pairs. `destination` has
/// room for `header.height` rows of whole pixel pairs.
void packFrame(const Y4MHeader& header, const std::uint8_t* frame, std::uint8_t* destination, std::size_t bytesPerRow);

/// One thread at a time.
class Y4MReader {
 public:
  /// Fails for a file whose header cannot be read or that does not hold one whole frame.
  static Result<Y4MReader> open(const std::string& path);

  const Y4MHeader& header() const noexcept { return _header; }

  /// Goes to the next frame, from `open` and `rewind` on to the first. False at the end of the clip, also where the
  /// last frame is cut off or what follows is no frame.
  bool nextFrame();

  /// Whether `nextFrame` has come to the end of the clip and found something else than a whole frame there.
  bool isCutOff() const noexcept { return _isCutOff; }

  /// Goes before the first frame.
  void rewind() noexcept;

  /// Draws the current frame into a locked 'yuvs' buffer of the clip's size, or black when the frame has gone from the
  /// file.
  void drawInto(CVPixelBufferRef pixelBuffer);

 private:
  Y4MReader(MediaFile file, Y4MHeader header, std::uint64_t firstFrame);
  bool findFrame();

  MediaFile _file;
  Y4MHeader _header;
  std::uint64_t _firstFrame;  // offset of its header line
  std::uint64_t _nextFrame;
  std::uint64_t _pixels = 0;  // offset of the current frame's first byte
  bool _isCutOff = false;
  std::vector<std::uint8_t> _frame;
};

}  // namespace hardware::simulated

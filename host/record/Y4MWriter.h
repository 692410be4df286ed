#pragma once

// YUV4MPEG2 files: uncompressed 4:2:2 pictures behind a line of text. A file that is cut off anywhere is readable up to
// there. Not locked; one thread at a time.

#include <cstdint>
#include <string>
#include <vector>

#include "picture/Rational.h"
#include "picture/Repack.h"
#include "record/OutputFile.h"

namespace brvhost {

struct Y4MFormat {
  std::size_t width = 0;  ///< in memory, in pixels
  std::size_t height = 0;
  Rational frameRate;    ///< frames per second
  Rational pixelAspect;  ///< width of a pixel to its height
};

/// The first line of the file, with its line end.
std::string y4mHeader(const Y4MFormat& format);

class Y4MWriter {
 public:
  /// Takes over `file`, in which nothing is written yet, and writes the header. Throws Failure.
  Y4MWriter(OutputFile file, const Y4MFormat& format);

  const Y4MFormat& format() const { return _format; }
  std::int64_t frameCount() const { return _frameCount; }

  /// Appends a picture of the format's size. Throws Failure; the file then still ends behind a whole frame.
  void writeFrame(const PictureView& picture);

  /// Throws Failure.
  void close() { _file.close(); }

 private:
  OutputFile _file;
  const Y4MFormat _format;
  std::vector<std::uint8_t> _frame;  ///< the marker and the planes, so that a frame is one write
  std::int64_t _frameCount = 0;
};

}  // namespace brvhost

#pragma once

// Small pictures for the screen: scaled, with square pixels, as JPEG. Keeps its memory from one to the next; one thread
// at a time.

#include <brv.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace brvhost {

class Preview {
 public:
  /// The bytes of a JPEG file, at most `width` wide and 3/4 of that high, and never larger than the picture. Throws
  /// Failure.
  std::string jpegOf(const brv::Frame& frame, std::size_t width);

 private:
  std::vector<std::uint8_t> _planes, _scaled, _pixels;
};

}  // namespace brvhost

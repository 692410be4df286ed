#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace brvhost {

/// A picture to be compressed, its rows one after the other.
struct JPEGPicture {
  std::span<const std::uint8_t> pixels;
  std::size_t width, height;
  std::size_t pixelBytes;  ///< 3: R G B; 4: B G R and one that is not read
  int quality;             ///< 1 to 100
  bool isForScreen;        ///< quicker and smaller, with half the lines of colour
};

/// The bytes of a JPEG file.
class JPEGFile {
 public:
  /// Throws Failure.
  explicit JPEGFile(const JPEGPicture& picture);
  ~JPEGFile();
  JPEGFile(const JPEGFile&) = delete;
  JPEGFile& operator=(const JPEGFile&) = delete;

  std::span<const std::uint8_t> bytes() const { return {_bytes, _size}; }

 private:
  unsigned char* _bytes = nullptr;
  unsigned long _size = 0;
};

}  // namespace brvhost

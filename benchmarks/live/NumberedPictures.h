#pragma once

// The camera's pictures say which they are, and a table that its process shares with those that capture says when each
// was taken: so all learn the age of a frame in the same way, whatever becomes of its time stamp on the way.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace bench {

/// How many different pictures there are: they come around after half a second.
constexpr std::size_t PictureCount = 16;

/// When the latest of each picture was taken, in nanoseconds on the monotonic clock.
using PictureTimes = std::array<std::atomic<std::int64_t>, PictureCount>;

/// The table in a file, which is made where it is not there; it stays for as long as the process.
inline PictureTimes& pictureTimes(const std::string& file) {
  const int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const bool isLong = descriptor >= 0 && ftruncate(descriptor, sizeof(PictureTimes)) == 0;
  void* const memory =
      isLong ? mmap(nullptr, sizeof(PictureTimes), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0) : MAP_FAILED;
  if (memory == MAP_FAILED) throw std::runtime_error(file + " cannot be shared");
  return *static_cast<PictureTimes*>(memory);
}

// The number's bits stand in the upper left corner, in blocks that survive compression.
constexpr std::size_t BlockSize = 32;
constexpr std::size_t BlockCount = 4;

/// In luma that has so many bytes from pixel to pixel.
inline void writeNumber(std::size_t number, std::uint8_t* luma, std::size_t pixelBytes, std::size_t rowBytes) {
  for (std::size_t y = 0; y < BlockSize; ++y) {
    for (std::size_t x = 0; x < BlockSize * BlockCount; ++x) {
      luma[y * rowBytes + x * pixelBytes] = number >> x / BlockSize & 1 ? 200 : 60;
    }
  }
}

/// In 'yuvs' pixels.
inline std::size_t numberIn(const std::uint8_t* pixels, std::size_t rowBytes) {
  std::size_t number = 0;
  for (std::size_t bit = 0; bit < BlockCount; ++bit) {
    const std::size_t x = bit * BlockSize + BlockSize / 2;
    number |= static_cast<std::size_t>(pixels[BlockSize / 2 * rowBytes + 2 * x] > 128) << bit;
  }
  return number;
}

}  // namespace bench

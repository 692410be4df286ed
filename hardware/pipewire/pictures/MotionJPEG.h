#pragma once

// Pictures of cameras that compress each on its own.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "PackedPicture.h"
#include "Scratch.h"

namespace hardware::pipewire {

/// Decodes with libjpeg-turbo, and keeps the decoder's memory from one picture to the next. One thread at a time.
class MotionJPEG {
 public:
  MotionJPEG() noexcept;
  ~MotionJPEG();
  MotionJPEG(const MotionJPEG&) = delete;
  MotionJPEG& operator=(const MotionJPEG&) = delete;

  /// Writes the picture as 'yuvs' in video range. It is 4:4:4, 4:2:2, 4:4:0, 4:2:0 or gray, in one scan, and has the
  /// usual Huffman tables where it brings none; what follows its last row does not matter. False when it is none of
  /// these, is corrupt, cut off, or of another size, and when there is no memory; some rows may have been written.
  bool write(const Plane& compressed, std::int32_t width, std::int32_t height, std::uint8_t* rows,
             int rowBytes) noexcept;

 private:
  class Decoder;

  std::unique_ptr<Decoder> _decoder;
  Scratch _scratch;
};

}  // namespace hardware::pipewire

#pragma once

// Camera pictures of all packings, written as 'yuvs' (Y0 Cb Y1 Cr) in video range.

#include <cstddef>
#include <cstdint>

#include "MotionJPEG.h"
#include "PackedPicture.h"
#include "Scratch.h"

namespace hardware::pipewire {

/// The colour that the picture has once it is written: always in video range. Raw luma and chroma keep their matrix,
/// Motion JPEG is BT.601. Red, green and blue get the matrix that the source states, or else BT.709 from 720 rows on
/// and BT.601 below.
VideoColor colorWhenWritten(const PackedPicture& picture);

/// Reads the pictures of one camera, and keeps what memory that needs from one to the next. One thread at a time.
class PictureReader {
 public:
  /// Writes a picture of any size to rows that hold (width + 1) / 2 pairs each and start every `rowBytes` bytes; the
  /// last pair of an odd row repeats its pixel. The picture's memory is read once, and may be shared with a program
  /// that writes to it meanwhile.
  ///
  /// False when the picture has fewer bytes than its size takes, is a JPEG that cannot be decoded whole or has another
  /// size than announced, or is of no packing at all, and when there is no memory: what the rows then hold is
  /// worthless.
  bool write(const PackedPicture& picture, std::uint8_t* rows, std::size_t rowBytes) noexcept;

 private:
  bool writeRaw(const PackedPicture& picture, std::uint8_t* rows, int rowBytes) noexcept;

  Scratch _scratch;
  MotionJPEG _jpeg;
};

}  // namespace hardware::pipewire

#pragma once

// The picture of a camera without a lens: colour bars, a frame counter in digits, a block that crosses the
// picture, and the counter once more as a row of black and white blocks that programs can read back.

#include <CoreVideo/CVPixelBuffer.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace hardware::simulated {

/// Draws the test picture of one size. The picture depends on the size and the frame number alone, so a
/// buffer that holds another of its frames needs only what moved. A buffer is taken for one when this object drew it
/// last and the number blocks and both ends of every row still are what was drawn; otherwise all of it is drawn. One
/// thread at a time.
class TestPicture {
 public:
  TestPicture(std::int32_t width, std::int32_t height);

  /// Draws frame `number` into 'yuvs' rows of this size.
  void draw(std::uint32_t number, std::uint8_t* rows, std::size_t bytesPerRow);

  /// The same into a locked pixel buffer; does nothing with one of another size.
  void draw(std::uint32_t number, CVPixelBufferRef pixelBuffer);

 private:
  struct Colour {
    std::uint8_t luma;
    std::uint8_t cb;
    std::uint8_t cr;
  };
  struct Canvas {
    std::uint8_t* rows;
    std::size_t bytesPerRow;
  };
  struct Rectangle {
    std::int32_t x;
    std::int32_t y;
    std::int32_t width;
    std::int32_t height;
  };
  struct DrawnBuffer {
    const std::uint8_t* rows = nullptr;
    std::size_t bytesPerRow = 0;
    std::uint32_t number = 0;
  };

  static std::uint32_t pixelPair(Colour colour);
  void fill(const Canvas& canvas, Rectangle rectangle, Colour colour) const;

  void drawAll(std::uint32_t number, const Canvas& canvas) const;
  void drawBars(const Canvas& canvas) const;
  void drawDigit(const Canvas& canvas, int position, std::uint32_t digit) const;
  void drawNumberBlock(const Canvas& canvas, int position, bool isSet) const;
  void drawChanges(std::uint32_t from, std::uint32_t to, const Canvas& canvas) const;

  bool isWhole(std::uint32_t number, const Canvas& canvas) const;
  bool rowEndsAre(Colour left, Colour right, std::int32_t firstRow, std::int32_t endRow, const Canvas& canvas) const;
  DrawnBuffer* findDrawn(const Canvas& canvas);
  void remember(std::uint32_t number, const Canvas& canvas);

  Colour bar(int index) const;
  Rectangle movingBlock(std::uint32_t number) const;

  std::int32_t _width;
  std::int32_t _height;
  // From the top: bars, the band that the block moves in, the row of number blocks.
  std::int32_t _bandTop;
  std::int32_t _blocksTop;
  std::int32_t _fontScale;  // pixels a dot; 0 when the picture is too small for digits
  Rectangle _digitBox{};
  std::int32_t _blockWidth;  // of a number block; 0 when the picture is too small for them
  std::int32_t _blocksLeft;

  // As many as a pool has buffers under way, and some.
  std::array<DrawnBuffer, 16> _drawn;
  std::size_t _nextDrawn = 0;
};

/// The frame number of a test picture in 'yuvs' rows, read from its blocks; nothing when it is none or too small for
/// them (less than 80 pixels wide or 12 high).
std::optional<std::uint32_t> readFrameNumber(const std::uint8_t* rows, std::size_t bytesPerRow, std::int32_t width,
                                             std::int32_t height);

}  // namespace hardware::simulated

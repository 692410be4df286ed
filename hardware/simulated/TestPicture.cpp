#include "TestPicture.h"

#include <algorithm>
#include <cstring>

namespace hardware::simulated {
namespace {

constexpr int NumberBits = 32;
constexpr int CheckBits = 8;
constexpr int NumberBlocks = NumberBits + CheckBits;
constexpr int Digits = 8;
constexpr int GlyphWidth = 5;
constexpr int GlyphHeight = 7;
constexpr int CellWidth = GlyphWidth + 1;
constexpr int BoxWidth = Digits * CellWidth + 1;  // in dots, a margin of one included
constexpr int BoxHeight = GlyphHeight + 2;
constexpr int Bars = 8;
constexpr std::int32_t FirstHighDefinitionHeight = 720;
constexpr std::int32_t SmallestNumberedHeight = 12;

// One byte a row, the leftmost dot in bit 4.
constexpr std::uint8_t Glyphs[10][GlyphHeight] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

constexpr std::int32_t even(std::int32_t value) {
  return value & ~1;
}

// Where the number blocks are; both who draws and who reads ask here.
struct NumberRow {
  std::int32_t top;
  std::int32_t left;
  std::int32_t blockWidth;
};

NumberRow numberRow(std::int32_t width, std::int32_t height) {
  const std::int32_t top = height - height / 12;
  const std::int32_t blockWidth = height < SmallestNumberedHeight ? 0 : even(width / NumberBlocks);
  return {top, even((width - blockWidth * NumberBlocks) / 2), blockWidth};
}

// The number with check bits, so that neither black nor white nor half a row reads as a number.
std::uint64_t coded(std::uint32_t number) {
  const std::uint32_t check = (number * 2654435761u) >> 24 ^ 0xA5u;
  return static_cast<std::uint64_t>(number) << CheckBits | check;
}

bool codeBit(std::uint64_t code, int position) {
  return (code >> (NumberBlocks - 1 - position) & 1) != 0;
}

std::array<std::uint32_t, Digits> digitsOf(std::uint32_t number) {
  std::array<std::uint32_t, Digits> digits{};
  for (int i = Digits - 1; i >= 0; --i, number /= 10) digits[static_cast<std::size_t>(i)] = number % 10;
  return digits;
}

}  // namespace

TestPicture::TestPicture(std::int32_t width, std::int32_t height) : _width(width), _height(height) {
  const NumberRow row = numberRow(width, height);
  _bandTop = height * 5 / 6;
  _blocksTop = row.top;
  _blockWidth = row.blockWidth;
  _blocksLeft = row.left;
  // Digits fill about half the width.
  _fontScale = even(std::min(width / (2 * BoxWidth), _bandTop / (BoxHeight + 2)));
  _digitBox = {even((width - BoxWidth * _fontScale) / 2), (_bandTop - BoxHeight * _fontScale) / 2,
               BoxWidth * _fontScale, BoxHeight * _fontScale};
}

void TestPicture::draw(std::uint32_t number, CVPixelBufferRef pixelBuffer) {
  if (CVPixelBufferGetWidth(pixelBuffer) != static_cast<std::size_t>(_width) ||
      CVPixelBufferGetHeight(pixelBuffer) != static_cast<std::size_t>(_height)) {
    return;
  }
  auto* rows = static_cast<std::uint8_t*>(CVPixelBufferGetBaseAddress(pixelBuffer));
  if (rows) draw(number, rows, CVPixelBufferGetBytesPerRow(pixelBuffer));
}

void TestPicture::draw(std::uint32_t number, std::uint8_t* rows, std::size_t bytesPerRow) {
  const Canvas canvas{rows, bytesPerRow};
  DrawnBuffer* drawn = findDrawn(canvas);
  if (drawn && isWhole(drawn->number, canvas)) {
    drawChanges(drawn->number, number, canvas);
    drawn->number = number;
    return;
  }
  drawAll(number, canvas);
  if (drawn) {
    drawn->number = number;
  } else {
    remember(number, canvas);
  }
}

TestPicture::DrawnBuffer* TestPicture::findDrawn(const Canvas& canvas) {
  const auto found = std::find_if(_drawn.begin(), _drawn.end(), [&](const DrawnBuffer& drawn) {
    return drawn.rows == canvas.rows && drawn.bytesPerRow == canvas.bytesPerRow;
  });
  return found == _drawn.end() ? nullptr : &*found;
}

void TestPicture::remember(std::uint32_t number, const Canvas& canvas) {
  _drawn[_nextDrawn] = {canvas.rows, canvas.bytesPerRow, number};
  _nextDrawn = (_nextDrawn + 1) % _drawn.size();
}

// Another stream of the same size, the next owner of the memory, or new memory at an old address would each have left
// their traces in one of these places.
bool TestPicture::isWhole(std::uint32_t number, const Canvas& canvas) const {
  if (readFrameNumber(canvas.rows, canvas.bytesPerRow, _width, _height) != number) return false;

  const Colour black = bar(Bars - 1);
  const Colour white = bar(0);
  const Rectangle block = movingBlock(number);
  const std::int32_t lastPair = even(_width - 1);
  const auto inBlock = [&](std::int32_t x) { return x >= block.x && x < block.x + block.width; };
  const auto numberColour = [&](std::int32_t x) {
    const std::int32_t position = (x - _blocksLeft) / _blockWidth;
    const bool isSet = x >= _blocksLeft && position < NumberBlocks && codeBit(coded(number), position);
    return isSet ? white : black;
  };
  return rowEndsAre(white, black, 0, _bandTop, canvas) &&
         rowEndsAre(inBlock(0) ? white : black, inBlock(lastPair) ? white : black, _bandTop, _blocksTop, canvas) &&
         rowEndsAre(numberColour(0), numberColour(lastPair), _blocksTop, _height, canvas);
}

bool TestPicture::rowEndsAre(Colour left, Colour right, std::int32_t firstRow, std::int32_t endRow,
                             const Canvas& canvas) const {
  const std::uint32_t expected[2] = {pixelPair(left), pixelPair(right)};
  const std::size_t lastPair = static_cast<std::size_t>(even(_width - 1)) * 2;
  for (std::int32_t y = firstRow; y < endRow; ++y) {
    const std::uint8_t* row = canvas.rows + static_cast<std::size_t>(y) * canvas.bytesPerRow;
    if (std::memcmp(row, &expected[0], 4) != 0 || std::memcmp(row + lastPair, &expected[1], 4) != 0) return false;
  }
  return true;
}

void TestPicture::drawAll(std::uint32_t number, const Canvas& canvas) const {
  const Colour black = bar(Bars - 1);
  drawBars(canvas);
  fill(canvas, {0, _bandTop, _width, _height - _bandTop}, black);
  fill(canvas, movingBlock(number), bar(0));
  fill(canvas, _digitBox, black);
  if (_fontScale > 0) {
    const auto digits = digitsOf(number);
    for (int i = 0; i < Digits; ++i) drawDigit(canvas, i, digits[static_cast<std::size_t>(i)]);
  }
  for (int i = 0; i < NumberBlocks; ++i) drawNumberBlock(canvas, i, codeBit(coded(number), i));
}

void TestPicture::drawChanges(std::uint32_t from, std::uint32_t to, const Canvas& canvas) const {
  if (from == to) return;
  fill(canvas, movingBlock(from), bar(Bars - 1));
  fill(canvas, movingBlock(to), bar(0));

  if (_fontScale > 0) {
    const auto oldDigits = digitsOf(from);
    const auto newDigits = digitsOf(to);
    for (std::size_t i = 0; i < Digits; ++i) {
      if (oldDigits[i] != newDigits[i]) drawDigit(canvas, static_cast<int>(i), newDigits[i]);
    }
  }
  for (int i = 0; i < NumberBlocks; ++i) {
    const bool isSet = codeBit(coded(to), i);
    if (isSet != codeBit(coded(from), i)) drawNumberBlock(canvas, i, isSet);
  }
}

void TestPicture::drawBars(const Canvas& canvas) const {
  for (int i = 0; i < Bars; ++i) {
    const std::int32_t left = even(_width * i / Bars);
    const std::int32_t right = i == Bars - 1 ? _width : even(_width * (i + 1) / Bars);
    fill(canvas, {left, 0, right - left, _bandTop}, bar(i));
  }
}

void TestPicture::drawDigit(const Canvas& canvas, int position, std::uint32_t digit) const {
  const std::int32_t left = _digitBox.x + (1 + position * CellWidth) * _fontScale;
  const std::int32_t top = _digitBox.y + _fontScale;
  fill(canvas, {left, top, GlyphWidth * _fontScale, GlyphHeight * _fontScale}, bar(Bars - 1));
  for (int row = 0; row < GlyphHeight; ++row) {
    for (int column = 0; column < GlyphWidth; ++column) {
      if ((Glyphs[digit][row] >> (GlyphWidth - 1 - column) & 1) == 0) continue;
      fill(canvas, {left + column * _fontScale, top + row * _fontScale, _fontScale, _fontScale}, bar(0));
    }
  }
}

void TestPicture::drawNumberBlock(const Canvas& canvas, int position, bool isSet) const {
  fill(canvas, {_blocksLeft + position * _blockWidth, _blocksTop, _blockWidth, _height - _blocksTop},
       isSet ? bar(0) : bar(Bars - 1));
}

TestPicture::Rectangle TestPicture::movingBlock(std::uint32_t number) const {
  const std::int32_t height = _blocksTop - _bandTop;
  const std::int32_t width = std::max(2, even(std::min(height, _width / 4)));
  const std::int32_t span = std::max(2, even(_width - width) + 2);
  const auto step = static_cast<std::uint64_t>(std::max(2, even(_width / 120)));
  return {static_cast<std::int32_t>(number * step % static_cast<std::uint64_t>(span)), _bandTop, width, height};
}

// 75 % bars in video range, in the matrix that a picture of this height is taken to have.
TestPicture::Colour TestPicture::bar(int index) const {
  static constexpr Colour standard[Bars] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};
  static constexpr Colour high[Bars] = {{180, 128, 128}, {168, 44, 136}, {145, 147, 44}, {133, 63, 52},
                                        {63, 193, 204},  {51, 109, 212}, {28, 212, 120}, {16, 128, 128}};
  return _height >= FirstHighDefinitionHeight ? high[index] : standard[index];
}

// A pixel pair as four bytes in memory order.
std::uint32_t TestPicture::pixelPair(Colour colour) {
  const std::uint8_t bytes[4] = {colour.luma, colour.cb, colour.luma, colour.cr};
  std::uint32_t pair;
  std::memcpy(&pair, bytes, sizeof(pair));
  return pair;
}

// Fills what of the rectangle lies in the picture. Its left edge is even; an odd width takes the whole last pair.
void TestPicture::fill(const Canvas& canvas, Rectangle rectangle, Colour colour) const {
  const std::int32_t right = std::min(rectangle.x + rectangle.width, _width);
  const std::int32_t bottom = std::min(rectangle.y + rectangle.height, _height);
  if (rectangle.x < 0 || rectangle.y < 0 || right <= rectangle.x || bottom <= rectangle.y) return;

  const auto pairs = static_cast<std::size_t>(right - rectangle.x + 1) / 2;
  const std::uint32_t pair = pixelPair(colour);
  std::uint8_t* first = canvas.rows + static_cast<std::size_t>(rectangle.y) * canvas.bytesPerRow +
                        static_cast<std::size_t>(rectangle.x) * 2;
  for (std::size_t i = 0; i < pairs; ++i) std::memcpy(first + 4 * i, &pair, sizeof(pair));

  std::uint8_t* row = first;
  for (std::int32_t y = rectangle.y + 1; y < bottom; ++y) {
    row += canvas.bytesPerRow;
    std::memcpy(row, first, pairs * sizeof(pair));
  }
}

std::optional<std::uint32_t> readFrameNumber(const std::uint8_t* rows, std::size_t bytesPerRow, std::int32_t width,
                                             std::int32_t height) {
  const NumberRow row = numberRow(width, height);
  if (row.blockWidth == 0) return std::nullopt;

  constexpr std::uint8_t middleGrey = 98;  // half-way between the blocks' black and white
  const std::int32_t y = (row.top + height) / 2;
  const std::uint8_t* line = rows + static_cast<std::size_t>(y) * bytesPerRow;
  std::uint64_t code = 0;
  for (int i = 0; i < NumberBlocks; ++i) {
    const std::int32_t x = row.left + i * row.blockWidth + row.blockWidth / 2;
    code = code << 1 | (line[static_cast<std::size_t>(x) * 2] > middleGrey ? 1u : 0u);
  }
  const auto number = static_cast<std::uint32_t>(code >> CheckBits);
  if (coded(number) != code) return std::nullopt;
  return number;
}

}  // namespace hardware::simulated

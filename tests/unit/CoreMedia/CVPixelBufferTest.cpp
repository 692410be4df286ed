#include <CoreVideo/CVPixelBuffer.h>

#include <cstring>
#include <utility>

#include "MediaTest.h"

namespace {

using CVPixelBufferTest = FrameworkTest;

TEST_F(CVPixelBufferTest, RowsAreAlignedAndWritableToTheirLastByte) {
  const std::size_t cases[][3] = {{1, 1, 64}, {32, 3, 64}, {33, 2, 128}, {719, 5, 1472}, {32768, 1, 65536}};
  for (const auto& [width, height, bytesPerRow] : cases) {
    const Buffer buffer = samples::picture(width, height);
    CVPixelBufferLockBaseAddress(buffer.get(), 0);
    void* const pixels = CVPixelBufferGetBaseAddress(buffer.get());
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(buffer.get()), bytesPerRow) << width;
    ASSERT_EQ(CVPixelBufferGetDataSize(buffer.get()), bytesPerRow * height);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pixels) % 64, 0u);
    std::memset(pixels, 0x80, bytesPerRow * height);
  }
  for (const auto& [width, height] : {std::pair<std::size_t, std::size_t>{0, 1}, {1, 32769}, {SIZE_MAX, SIZE_MAX}}) {
    EXPECT_FALSE(samples::picture(width, height)) << width << 'x' << height;
  }
}

TEST_F(CVPixelBufferTest, OneThatComesBackToItsPoolIsHandedOutWithItsBytesAndNothingElse) {
  const Pool pool = makePool(16, 16);
  Buffer buffer = takeBuffer(pool);
  const CVPixelBufferRef first = buffer.get();
  const Ref<NSNumber> value = NSNumber::numberWithInt(1);
  CVBufferSetAttachment(first, kCVImageBufferPixelAspectRatioKey, value.get(), 1);
  CVPixelBufferLockBaseAddress(first, 0);
  std::memset(CVPixelBufferGetBaseAddress(first), 0x5A, CVPixelBufferGetDataSize(first));

  buffer = {};
  EXPECT_EQ(value->retainCount(), 1);
  buffer = takeBuffer(pool);

  EXPECT_EQ(buffer.get(), first);
  EXPECT_NE(takeBuffer(pool).get(), first);
  EXPECT_EQ(CVBufferGetAttachment(first, kCVImageBufferPixelAspectRatioKey, nullptr), nullptr);
  EXPECT_EQ(CVPixelBufferGetBaseAddress(first), nullptr) << "a forgotten lock does not carry over";
  CVPixelBufferLockBaseAddress(first, 0);
  EXPECT_EQ(static_cast<char*>(CVPixelBufferGetBaseAddress(first))[CVPixelBufferGetDataSize(first) - 1], 0x5A);
}

}  // namespace

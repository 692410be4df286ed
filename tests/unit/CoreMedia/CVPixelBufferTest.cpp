#include <CoreVideo/CVPixelBuffer.h>

#include <cmath>
#include <cstring>
#include <utility>

#include "MediaTest.h"

namespace {

using CVPixelBufferTest = FrameworkTest;
using CVPixelBufferPoolTest = FrameworkTest;

TEST_F(CVPixelBufferTest, RowsAreAlignedAndWritableToTheirLastByte) {
  const std::size_t cases[][3] = {{1, 1, 64}, {32, 3, 64}, {33, 2, 128}, {719, 5, 1472}, {32768, 1, 65536}};
  for (const auto& [width, height, bytesPerRow] : cases) {
    const Buffer buffer = samples::picture(width, height);

    CVPixelBufferLockBaseAddress(buffer.get(), 0);
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(buffer.get()), bytesPerRow) << width;
    ASSERT_EQ(CVPixelBufferGetDataSize(buffer.get()), bytesPerRow * height);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(CVPixelBufferGetBaseAddress(buffer.get())) % 64, 0u);
    std::memset(CVPixelBufferGetBaseAddress(buffer.get()), 0x80, CVPixelBufferGetDataSize(buffer.get()));
    CVPixelBufferUnlockBaseAddress(buffer.get(), 0);
  }
  for (const auto& [width, height] : {std::pair<std::size_t, std::size_t>{0, 1}, {1, 32769}, {SIZE_MAX, SIZE_MAX}}) {
    EXPECT_FALSE(samples::picture(width, height)) << width << 'x' << height;
  }
}

TEST_F(CVPixelBufferTest, DisplaySizeIsThatOfThePixelsUnlessItsAttachmentIsUsable) {
  const Buffer buffer = takeBuffer(makePool(1440, 1080));
  for (const auto& [width, expected] : {std::pair{1919.5, 1919.5}, {0.0, 1440}, {-1.0, 1440}, {INFINITY, 1440}}) {
    const auto display = twoNumbers(kCVImageBufferDisplayWidthKey, width, kCVImageBufferDisplayHeightKey, 1080);
    CVBufferSetAttachment(buffer.get(), kCVImageBufferDisplayDimensionsKey, display.get(), 1);
    EXPECT_EQ(CVImageBufferGetDisplaySize(buffer.get()).width, expected) << width;
  }
}

TEST_F(CVPixelBufferPoolTest, ReleasedBufferComesBackWithItsBytesAndNothingElse) {
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
  const Buffer second = takeBuffer(pool);

  EXPECT_EQ(buffer.get(), first);
  EXPECT_NE(second.get(), first);
  EXPECT_EQ(CVBufferGetAttachment(first, kCVImageBufferPixelAspectRatioKey, nullptr), nullptr);
  EXPECT_EQ(CVPixelBufferGetBaseAddress(first), nullptr) << "a forgotten lock does not carry over";
  CVPixelBufferLockBaseAddress(first, 0);
  EXPECT_EQ(static_cast<char*>(CVPixelBufferGetBaseAddress(first))[CVPixelBufferGetDataSize(first) - 1], 0x5A);
}

TEST_F(CVPixelBufferPoolTest, ThresholdCountsTheBuffersThatAreOut) {
  const Pool pool = makePool(16, 16);
  const auto aux =
      makeRef<NSDictionary>(Entries{{kCVPixelBufferPoolAllocationThresholdKey, NSNumber::numberWithInt(2)}});
  const auto take = [&](CVReturn expected) {
    CVPixelBufferRef made = nullptr;
    EXPECT_EQ(CVPixelBufferPoolCreatePixelBufferWithAuxAttributes(nullptr, pool.get(), aux->toCF(), &made), expected);
    EXPECT_EQ(made != nullptr, expected == kCVReturnSuccess);
    return Buffer::adopt(made);
  };

  Buffer first = takeBuffer(pool);
  const Buffer second = take(kCVReturnSuccess);
  take(kCVReturnWouldExceedAllocationThreshold);
  first = {};
  take(kCVReturnSuccess);
}

}  // namespace

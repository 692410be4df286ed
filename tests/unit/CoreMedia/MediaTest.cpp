// Blocks of memory, pixel buffers and their pools.

#include <CoreVideo/CVPixelBufferPool.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <support/FrameworkTest.h>
#include <support/Samples.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

using Block = CFRef<CMBlockBufferRef>;
using Buffer = CFRef<CVPixelBufferRef>;
using Pool = CFRef<CVPixelBufferPoolRef>;

using CMBlockBufferTest = FrameworkTest;
using CVPixelBufferTest = FrameworkTest;

Block makeBlock(void* memory, std::size_t size, std::size_t offset, std::size_t length,
                const CMBlockBufferCustomBlockSource* source) {
  CMBlockBufferRef block = nullptr;
  EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, memory, size, nullptr, source, offset, length, 0, &block),
            noErr);
  return Block::adopt(block);
}

Pool makePool() {
  const auto attributes = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
      {kCVPixelBufferWidthKey, NSNumber::numberWithInt(64)},
      {kCVPixelBufferHeightKey, NSNumber::numberWithInt(36)}});
  CVPixelBufferPoolRef pool = nullptr;
  CVPixelBufferPoolCreate(nullptr, nullptr, attributes.get(), &pool);
  return Pool::adopt(pool);
}

Buffer takeBuffer(const Pool& pool) {
  CVPixelBufferRef buffer = nullptr;
  CVPixelBufferPoolTake(pool.get(), 16, &buffer);
  return Buffer::adopt(buffer);
}

TEST_F(CMBlockBufferTest, MemoryIsGivenBackOnceAndNotReadPastItsEnd) {
  std::size_t freedBytes = 0;
  const auto free = [](void* count, void* memory, std::size_t size) {
    *static_cast<std::size_t*>(count) += size;
    std::free(memory);
  };
  const CMBlockBufferCustomBlockSource source{0, nullptr, free, &freedBytes};
  const auto append = [&](const Block& block, void* memory, std::size_t size, std::size_t length) {
    return CMBlockBufferAppendMemoryBlock(block.get(), memory, size, nullptr, &source, 0, length, 0);
  };
  Block block = makeBlock(std::malloc(100), 100, 10, 20, &source);
  EXPECT_EQ(append(block, std::malloc(7), 7, 0), noErr) << "an empty run of data still owns its memory";
  block = {};
  EXPECT_EQ(freedBytes, 107u);

  char memory[16];
  block = makeBlock(memory, 16, 0, 4, nullptr);
  EXPECT_EQ(CMBlockBufferCopyDataBytes(block.get(), 2, SIZE_MAX, memory), kCMBlockBufferBadLengthParameterErr);
}

TEST_F(CVPixelBufferTest, RowsAreAlignedAndWritableToTheirLastByte) {
  const std::size_t cases[][3] = {{1, 1, 64}, {33, 2, 128}, {719, 5, 1472}};
  for (const auto& [width, height, bytesPerRow] : cases) {
    const Buffer buffer = samples::picture(width, height);
    CVPixelBufferLockBaseAddress(buffer.get(), 0);
    void* const pixels = CVPixelBufferGetBaseAddress(buffer.get());
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(buffer.get()), bytesPerRow) << width;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pixels) % 64, 0u);
    std::memset(pixels, 0x80, CVPixelBufferGetDataSize(buffer.get()));
  }
  for (const auto& [width, height] : {std::pair<std::size_t, std::size_t>{0, 1}, {SIZE_MAX, SIZE_MAX}}) {
    EXPECT_FALSE(samples::picture(width, height)) << width << 'x' << height;
  }
}

TEST_F(CVPixelBufferTest, OneThatComesBackToItsPoolIsHandedOutWithItsBytesAloneAndOutlivesThePool) {
  Pool pool = makePool();
  Buffer buffer = takeBuffer(pool);
  const CVPixelBufferRef first = buffer.get();
  const Ref<NSNumber> value = NSNumber::numberWithInt(1);
  CVBufferSetAttachment(first, kCVImageBufferPixelAspectRatioKey, value.get(), 1);
  CVPixelBufferLockBaseAddress(first, 0);
  *static_cast<char*>(CVPixelBufferGetBaseAddress(first)) = 0x5A;

  buffer = {};
  EXPECT_EQ(value->retainCount(), 1);
  buffer = takeBuffer(pool);

  EXPECT_EQ(buffer.get(), first);
  EXPECT_NE(takeBuffer(pool).get(), first);
  EXPECT_EQ(CVPixelBufferGetBaseAddress(first), nullptr) << "a forgotten lock does not carry over";
  pool = {};
  CVPixelBufferLockBaseAddress(first, 0);
  EXPECT_EQ(*static_cast<char*>(CVPixelBufferGetBaseAddress(first)), 0x5A);
}

}  // namespace

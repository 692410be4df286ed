#include <CoreMedia/CMBlockBuffer.h>

#include <cstdlib>

#include "MediaTest.h"

namespace {

using CMBlockBufferTest = FrameworkTest;

TEST_F(CMBlockBufferTest, MemoryIsGivenBackOnceAndWhatLiesOutsideOfItIsRefused) {
  std::size_t freedBytes = 0;
  const auto free = [](void* count, void* memory, std::size_t size) {
    *static_cast<std::size_t*>(count) += size;
    std::free(memory);
  };
  const CMBlockBufferCustomBlockSource source{0, nullptr, free, &freedBytes};
  const auto append = [&](const Block& block, void* memory, std::size_t size, std::size_t length) {
    return CMBlockBufferAppendMemoryBlock(block.get(), memory, size, kCFAllocatorDefault, &source, 0, length, 0);
  };
  Block block = makeBlock(std::malloc(100), 100, 10, 20, &source);
  EXPECT_EQ(append(block, std::malloc(7), 7, 0), noErr) << "an empty run of data still owns its memory";
  block = {};
  EXPECT_EQ(freedBytes, 107u);

  char memory[16];
  makeBlock(memory, 16, 17, 0, &source, kCMBlockBufferBadOffsetParameterErr);
  makeBlock(memory, 16, 8, SIZE_MAX, &source, kCMBlockBufferBadLengthParameterErr);
  makeBlock(nullptr, SIZE_MAX, 0, SIZE_MAX, nullptr, kCMBlockBufferBlockAllocationFailedErr);
  EXPECT_EQ(append(makeBlock(memory, SIZE_MAX, 0, SIZE_MAX - 3), memory, 16, 4), kCMBlockBufferBadLengthParameterErr)
      << "lengths cannot add up past the address space";
  EXPECT_EQ(freedBytes, 107u) << "refused memory stays the caller's";
  block = makeBlock(memory, 16, 0, 4);
  EXPECT_NE(CMBlockBufferGetDataPointer(block.get(), 4, nullptr, nullptr, nullptr), noErr);
  EXPECT_EQ(CMBlockBufferCopyDataBytes(block.get(), 2, SIZE_MAX, memory), kCMBlockBufferBadLengthParameterErr);
  EXPECT_FALSE(CMBlockBufferIsRangeContiguous(block.get(), 1, SIZE_MAX));
}

}  // namespace

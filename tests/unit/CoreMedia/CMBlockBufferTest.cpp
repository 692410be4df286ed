#include <CoreMedia/CMBlockBuffer.h>

#include <cstdlib>
#include <string>

#include "MediaTest.h"

namespace {

using CMBlockBufferTest = FrameworkTest;

struct FreedBlocks {
  std::size_t bytes = 0;
  int count = 0;
  CMBlockBufferCustomBlockSource source = {0, nullptr, &FreedBlocks::free, this};

  static void free(void* self, void* memory, std::size_t size) {
    auto* freed = static_cast<FreedBlocks*>(self);
    ++freed->count;
    freed->bytes += size;
    std::free(memory);
  }
};

TEST_F(CMBlockBufferTest, OffsetsAreFoundAcrossPieces) {
  const Block block = samples::block({{'a', 'b', 'c'}, {'d'}, {'e', 'f', 'g', 'h'}});
  const std::string all = "abcdefgh";
  const std::size_t pieceEnds[] = {3, 3, 3, 4, 8, 8, 8, 8};

  for (std::size_t offset = 0; offset < all.size(); ++offset) {
    std::size_t follows = 0, total = 0;
    char* data = nullptr;
    ASSERT_EQ(CMBlockBufferGetDataPointer(block.get(), offset, &follows, &total, &data), kCMBlockBufferNoErr);
    EXPECT_EQ(*data, all[offset]);
    EXPECT_EQ(follows, pieceEnds[offset] - offset);
    EXPECT_EQ(total, all.size());
    for (std::size_t length = 1; length <= all.size() + 1; ++length) {
      EXPECT_EQ(CMBlockBufferIsRangeContiguous(block.get(), offset, length), offset + length <= pieceEnds[offset]);
      if (offset + length > all.size()) continue;
      std::string copy(length, '-');
      ASSERT_EQ(CMBlockBufferCopyDataBytes(block.get(), offset, length, copy.data()), kCMBlockBufferNoErr);
      EXPECT_EQ(copy, all.substr(offset, length));
    }
  }
}

TEST_F(CMBlockBufferTest, MemoryIsGivenBackOnceWhenTheBufferGoes) {
  FreedBlocks freed;
  Block block = makeBlock(std::malloc(100), 100, 10, 20, &freed.source);
  // An empty run of data still owns its memory.
  ASSERT_EQ(CMBlockBufferAppendMemoryBlock(block.get(), std::malloc(7), 7, kCFAllocatorDefault, &freed.source, 7, 0, 0),
            noErr);
  EXPECT_EQ(freed.count, 0);

  block = {};

  EXPECT_EQ(freed.count, 2);
  EXPECT_EQ(freed.bytes, 107u);
}

TEST_F(CMBlockBufferTest, WhatLiesOutsideTheMemoryOrTheDataIsRefused) {
  FreedBlocks freed;
  char memory[16];
  makeBlock(memory, 16, 17, 0, &freed.source, kCMBlockBufferBadOffsetParameterErr);
  makeBlock(memory, 16, 8, 9, &freed.source, kCMBlockBufferBadLengthParameterErr);
  makeBlock(memory, 16, 8, SIZE_MAX, &freed.source, kCMBlockBufferBadLengthParameterErr);
  makeBlock(nullptr, SIZE_MAX, 0, SIZE_MAX, nullptr, kCMBlockBufferBlockAllocationFailedErr);
  // Lengths cannot add up past the address space.
  const Block large = makeBlock(memory, SIZE_MAX, 0, SIZE_MAX - 3);
  EXPECT_EQ(CMBlockBufferAppendMemoryBlock(large.get(), memory, 16, kCFAllocatorDefault, &freed.source, 0, 4, 0),
            kCMBlockBufferBadLengthParameterErr);
  EXPECT_EQ(freed.count, 0) << "refused memory stays the caller's";

  const Block block = samples::block({{'a', 'b', 'c', 'd'}});
  EXPECT_NE(CMBlockBufferGetDataPointer(block.get(), 4, nullptr, nullptr, nullptr), noErr);
  EXPECT_NE(CMBlockBufferGetDataPointer(samples::block({}).get(), 0, nullptr, nullptr, nullptr), noErr);
  EXPECT_EQ(CMBlockBufferCopyDataBytes(block.get(), 2, SIZE_MAX, memory), kCMBlockBufferBadLengthParameterErr);
  EXPECT_FALSE(CMBlockBufferIsRangeContiguous(block.get(), 1, SIZE_MAX));
}

}  // namespace

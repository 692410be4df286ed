#include <CoreMedia/CMBlockBuffer.h>

#include <cstdlib>
#include <string>

#include "MediaTest.h"

namespace {

using CMBlockBufferTest = MediaTest;
using Block = CFRef<CMBlockBufferRef>;

struct FreedBlocks {
  int count = 0;
  std::size_t bytes = 0;

  CMBlockBufferCustomBlockSource source() {
    const auto free = [](void* self, void* memory, std::size_t size) {
      auto* freed = static_cast<FreedBlocks*>(self);
      ++freed->count;
      freed->bytes += size;
      std::free(memory);
    };
    return {0, nullptr, free, this};
  }
};

OSStatus create(void* memory, std::size_t size, const CMBlockBufferCustomBlockSource* source, std::size_t offset,
                std::size_t length) {
  CMBlockBufferRef block = nullptr;
  const OSStatus status = CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, memory, size, kCFAllocatorDefault,
                                                             source, offset, length, 0, &block);
  EXPECT_EQ(block != nullptr, status == kCMBlockBufferNoErr);
  if (block) CFRelease(block);
  return status;
}

TEST_F(CMBlockBufferTest, OffsetsAreFoundAcrossPieces) {
  std::string first = "abc";
  std::string second = "d";
  std::string third = "efgh";
  const Block block = makeBlock({&first, &second, &third});
  const std::string all = first + second + third;
  const std::size_t pieceEnds[] = {3, 3, 3, 4, 8, 8, 8, 8};
  ASSERT_EQ(CMBlockBufferGetDataLength(block.get()), all.size());

  for (std::size_t offset = 0; offset < all.size(); ++offset) {
    std::size_t follows = 0;
    std::size_t total = 0;
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
  EXPECT_FALSE(CMBlockBufferIsRangeContiguous(block.get(), 0, 0));
  EXPECT_TRUE(CMBlockBufferIsRangeContiguous(block.get(), 5, 0));
}

TEST_F(CMBlockBufferTest, MemoryIsGivenBackOnceWhenTheBufferGoes) {
  FreedBlocks freed;
  const CMBlockBufferCustomBlockSource source = freed.source();
  CMBlockBufferRef made = nullptr;
  ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, std::malloc(100), 100, kCFAllocatorDefault, &source,
                                               10, 20, 0, &made),
            kCMBlockBufferNoErr);
  Block block = Block::adopt(made);
  // An empty run of data still owns its memory.
  ASSERT_EQ(CMBlockBufferAppendMemoryBlock(made, std::malloc(7), 7, kCFAllocatorDefault, &source, 7, 0, 0), noErr);
  ASSERT_EQ(CMBlockBufferAppendMemoryBlock(made, nullptr, 50, kCFAllocatorDefault, nullptr, 0, 50, 0), noErr);
  EXPECT_EQ(CMBlockBufferGetDataLength(made), 70u);
  Block second = block;

  block = {};
  EXPECT_EQ(freed.count, 0);
  second = {};

  EXPECT_EQ(freed.count, 2);
  EXPECT_EQ(freed.bytes, 107u);
}

TEST_F(CMBlockBufferTest, RefusedMemoryStaysTheCallers) {
  FreedBlocks freed;
  CMBlockBufferCustomBlockSource source = freed.source();
  char memory[16];
  const struct {
    void* memory;
    std::size_t size;
    std::size_t offset;
    std::size_t length;
    bool hasSource;
    OSStatus expected;
  } cases[] = {
      {memory, 16, 17, 0, true, kCMBlockBufferBadOffsetParameterErr},
      {memory, 16, 8, 9, true, kCMBlockBufferBadLengthParameterErr},
      {memory, 16, 8, SIZE_MAX, true, kCMBlockBufferBadLengthParameterErr},
      {memory, 0, 0, 0, true, kCMBlockBufferBadLengthParameterErr},
      {nullptr, 16, 0, 16, true, kCMBlockBufferBadCustomBlockSourceErr},
      {nullptr, SIZE_MAX, 0, SIZE_MAX, false, kCMBlockBufferBlockAllocationFailedErr},
      {nullptr, SIZE_MAX / 2, 0, 1, false, kCMBlockBufferBlockAllocationFailedErr},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(create(c.memory, c.size, c.hasSource ? &source : nullptr, c.offset, c.length), c.expected)
        << "case " << &c - cases;
  }
  source.version = 1;
  EXPECT_EQ(create(memory, 16, &source, 0, 16), kCMBlockBufferBadCustomBlockSourceErr);
  EXPECT_EQ(freed.count, 0);
}

TEST_F(CMBlockBufferTest, LengthsCannotAddUpPastTheAddressSpace) {
  char memory[16];
  CMBlockBufferRef made = nullptr;
  ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, memory, SIZE_MAX, kCFAllocatorDefault, nullptr, 0,
                                               SIZE_MAX - 3, 0, &made),
            kCMBlockBufferNoErr);
  const Block block = Block::adopt(made);

  EXPECT_EQ(CMBlockBufferAppendMemoryBlock(made, memory, 16, kCFAllocatorDefault, nullptr, 0, 4, 0),
            kCMBlockBufferBadLengthParameterErr);
  EXPECT_EQ(CMBlockBufferAppendMemoryBlock(made, memory, 16, kCFAllocatorDefault, nullptr, 0, 3, 0),
            kCMBlockBufferNoErr);
}

TEST_F(CMBlockBufferTest, ReadingOutsideTheDataIsAnError) {
  std::string bytes = "abcd";
  const Block block = makeBlock({&bytes});
  const Block empty = makeBlock({});
  char out[8];

  EXPECT_EQ(CMBlockBufferGetDataPointer(block.get(), 4, nullptr, nullptr, nullptr),
            kCMBlockBufferBadOffsetParameterErr);
  EXPECT_EQ(CMBlockBufferGetDataPointer(empty.get(), 0, nullptr, nullptr, nullptr), kCMBlockBufferEmptyBBufErr);
  EXPECT_EQ(CMBlockBufferGetDataPointer(nullptr, 0, nullptr, nullptr, nullptr), kCMBlockBufferBadPointerParameterErr);
  EXPECT_EQ(CMBlockBufferCopyDataBytes(block.get(), 5, 1, out), kCMBlockBufferBadOffsetParameterErr);
  EXPECT_EQ(CMBlockBufferCopyDataBytes(block.get(), 2, SIZE_MAX, out), kCMBlockBufferBadLengthParameterErr);
  EXPECT_EQ(CMBlockBufferCopyDataBytes(block.get(), 0, 4, nullptr), kCMBlockBufferBadPointerParameterErr);
  EXPECT_FALSE(CMBlockBufferIsRangeContiguous(block.get(), 1, SIZE_MAX));
}

}  // namespace

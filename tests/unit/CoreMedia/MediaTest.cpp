// Blocks of memory, pixel buffers and their pools.

#include <CoreVideo/CVPixelBufferPool.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <support/FrameworkTest.h>
#include <support/Samples.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace {

using Buffer = CFRef<CVPixelBufferRef>;
using Pool = CFRef<CVPixelBufferPoolRef>;

using CMBlockBufferTest = FrameworkTest;
using CVPixelBufferTest = FrameworkTest;

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
  CMBlockBufferRef made = nullptr;
  CMBlockBufferCreateWithMemoryBlock(nullptr, std::malloc(100), 100, nullptr, &source, 10, 20, 0, &made);
  auto block = CFRef<CMBlockBufferRef>::adopt(made);
  EXPECT_EQ(CMBlockBufferAppendMemoryBlock(made, std::malloc(7), 7, nullptr, &source, 0, 0, 0), noErr)
      << "an empty run of data still owns its memory";
  char bytes[20];
  EXPECT_EQ(CMBlockBufferCopyDataBytes(made, 2, SIZE_MAX, bytes), kCMBlockBufferBadLengthParameterErr);
  block = {};
  EXPECT_EQ(freedBytes, 107u);
}

TEST_F(CMBlockBufferTest, SoundIsCopiedWhereItsPlanesAreNotInOnePieceOrNotAlignedAsAsked) {
  constexpr auto aligned = kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment;
  const struct {
    UInt32 planes;
    std::vector<std::size_t> pieces;
    uint32_t flags;
    bool isCopied;
  } cases[] = {{1, {32}, aligned, false}, {1, {24}, aligned, false}, {2, {32}, aligned, false},
               {2, {48}, aligned, true},  {2, {48}, 0, false},       {2, {24, 24}, 0, true},
               {3, {24, 24}, 0, true}};
  for (const auto& [planes, sizes, flags, isCopied] : cases) {
    std::vector<std::vector<std::uint8_t>> pieces;
    std::uint8_t next = 0;
    for (const std::size_t size : sizes)
      for (auto& byte : pieces.emplace_back(size)) byte = next++;
    const AudioFormatFlags kind = planes > 1 ? kAudioFormatFlagIsNonInterleaved : 0;
    const AudioStreamBasicDescription stream{48000, kAudioFormatLinearPCM, kind, 1, 1, 1, planes, 8, 0};
    const auto sample = samples::sound(stream, kCMTimeZero, pieces, next / planes);
    std::array<std::uint64_t, 16> memory;
    auto* const list = reinterpret_cast<AudioBufferList*>(memory.data());
    CMBlockBufferRef made = nullptr;
    std::size_t needed = 0;
    const auto get = [&, flags = flags](std::size_t size) {
      return CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sample.get(), &needed, list, size, nullptr,
                                                                     nullptr, flags, &made);
    };
    EXPECT_EQ(get(7 + planes * sizeof(AudioBuffer)), kCMSampleBufferError_ArrayTooSmall);
    ASSERT_EQ(get(needed), noErr);
    const auto block = CFRef<CMBlockBufferRef>::adopt(made);
    EXPECT_EQ(made != CMSampleBufferGetDataBuffer(sample.get()), isCopied);
    EXPECT_EQ(list->mNumberBuffers, planes);
    const AudioBuffer* const buffers = list->mBuffers;
    for (UInt32 i = 0; i < next; ++i) {
      const auto& [channels, size, data] = buffers[i * planes / next];
      EXPECT_EQ(size, next / planes);
      EXPECT_TRUE(flags == 0 || reinterpret_cast<std::uintptr_t>(data) % 16 == 0);
      EXPECT_EQ(static_cast<std::uint8_t*>(data)[i % size], i);
    }
  }
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

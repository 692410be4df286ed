// Blocks of memory, pixel buffers and their pools, and what a sample needs of them.

#include <AudioToolbox/AudioConverter.h>
#include <CoreVideo/CVPixelBufferPool.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <dispatch/dispatch.h>
#include <support/FailingAllocations.h>
#include <support/FrameworkTest.h>
#include <support/Samples.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

namespace {

using Block = CFRef<CMBlockBufferRef>;
using Buffer = CFRef<CVPixelBufferRef>;
using Pool = CFRef<CVPixelBufferPoolRef>;

using CMBlockBufferTest = FrameworkTest;
using CVPixelBufferTest = FrameworkTest;
using SteadyStateTest = FrameworkTest;

Block makeBlock(void* memory, std::size_t size, std::size_t offset, std::size_t length,
                const CMBlockBufferCustomBlockSource* source, OSStatus expected = noErr) {
  CMBlockBufferRef block = nullptr;
  EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, memory, size, nullptr, source, offset, length, 0, &block),
            expected);
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

TEST_F(CMBlockBufferTest, MemoryIsGivenBackOnceAndWhatLiesOutsideOfItIsRefused) {
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
  makeBlock(memory, 16, 17, 0, &source, kCMBlockBufferBadOffsetParameterErr);
  makeBlock(memory, 16, 8, SIZE_MAX, &source, kCMBlockBufferBadLengthParameterErr);
  makeBlock(nullptr, SIZE_MAX, 0, SIZE_MAX, nullptr, kCMBlockBufferBlockAllocationFailedErr);
  EXPECT_EQ(append(makeBlock(memory, SIZE_MAX, 0, SIZE_MAX - 3, nullptr), memory, 16, 4),
            kCMBlockBufferBadLengthParameterErr)
      << "lengths cannot add up past the address space";
  EXPECT_EQ(freedBytes, 107u) << "refused memory stays the caller's";
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

/// What capture does for each picture, and for each run of sound that the consumer asks to have aligned.
void passPictureAndSound(const Pool& pool, CMFormatDescriptionRef format) {
  const Buffer picture = takeBuffer(pool);
  CVBufferSetAttachment(picture.get(), kCVImageBufferPixelAspectRatioKey, format, 1);
  EXPECT_TRUE(samples::frame(picture.get(), CMTimeMake(2, 30)));

  const Block block = makeBlock(nullptr, 4104, 2, 4096, nullptr);
  CMSampleBufferRef sound = nullptr;
  CMAudioSampleBufferCreateReadyWithPacketDescriptions(nullptr, block.get(), format, 1024, CMTimeMake(7, 48000),
                                                       nullptr, &sound);
  AudioBufferList list = {};
  CMBlockBufferRef backing = nullptr;
  ASSERT_EQ(CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                sound, nullptr, &list, sizeof list, nullptr, nullptr,
                kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, &backing),
            noErr);
  EXPECT_NE(backing, block.get());
  CFRelease(backing);
  CFRelease(sound);
}

/// As many frames as are asked for of silence.
OSStatus supplySilence(AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                       void*) {
  static char silence[4096 * 4];
  *packets = std::min<UInt32>(*packets, 4096);
  list->mBuffers[0] = {2, *packets * 4, silence};
  return noErr;
}

TEST_F(SteadyStateTest, RunningCaptureDoesNotAllocate) {
  const auto flags = kAudioFormatFlagIsPacked | kAudioFormatFlagIsSignedInteger;
  const AudioStreamBasicDescription stream{48000, kAudioFormatLinearPCM, flags, 4, 1, 4, 2, 16, 0};
  const AudioStreamBasicDescription hosts{44100, kAudioFormatLinearPCM, flags, 4, 1, 4, 2, 16, 0};
  AudioConverterRef converter = nullptr;
  AudioConverterNew(&stream, &hosts, &converter);
  std::vector<char> sound(4096 * 4);
  CMFormatDescriptionRef format = nullptr;
  CMAudioFormatDescriptionCreate(nullptr, &stream, 0, nullptr, 0, nullptr, nullptr, &format);
  const Pool pool = makePool();
  const auto queue = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("steady", nullptr));
  std::optional<test::FailingAllocations> counted;
  for (int round = 0; round < 100; ++round) {
    passPictureAndSound(pool, format);
    dispatch_async_f(queue.get(), nullptr, [](void*) {});
    dispatch_sync(queue.get(), [] {});
    UInt32 frames = round % 2 ? 4096 : 100;
    AudioBufferList list{1, {{2, frames * 4, sound.data()}}};
    EXPECT_EQ(AudioConverterFillComplexBuffer(converter, supplySilence, nullptr, &frames, &list, nullptr), noErr);
    if (round % 10 == 9) AudioConverterReset(converter);
    if (round == 20) counted.emplace();
  }

  EXPECT_EQ(test::FailingAllocations::count(), 0);
  AudioConverterDispose(converter);
  CFRelease(format);
}

}  // namespace

#include <support/AllocationCount.h>

#include <cstring>
#include <thread>
#include <vector>

#include "MediaTest.h"

namespace {

using SteadyStateTest = FrameworkTest;

/// What capture does for each picture, and for each run of sound that the consumer asks to have aligned.
void passPictureAndSound(const Pool& pool, const NSObject& attachment, const Format& format) {
  const Buffer picture = takeBuffer(pool);
  CVBufferSetAttachment(picture.get(), kCVImageBufferPixelAspectRatioKey, &attachment, 1);
  EXPECT_TRUE(samples::frame(picture.get(), CMTimeMake(2, 30)));

  const Block block = makeBlock(nullptr, 4104, 2, 4096);
  std::memset(dataOf(block), 1, 4096);
  const Sample sample = makeAudioSample(block, format, 1024);
  AudioBufferList list = {};
  CMBlockBufferRef backing = nullptr;
  ASSERT_EQ(CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                sample.get(), nullptr, &list, sizeof list, nullptr, nullptr,
                kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, &backing),
            noErr);
  EXPECT_NE(list.mBuffers[0].mData, dataOf(block));
  CFRelease(backing);
}

TEST_F(SteadyStateTest, RunningCaptureDoesNotAllocate) {
  if (!AllocationsAreCounted) GTEST_SKIP() << "the allocator is a sanitizer's";
  const Pool pool = makePool(64, 36);
  const Format format = makeAudioFormat(2);
  const Ref<NSNumber> attachment = NSNumber::numberWithInt(1);
  std::int64_t counts[100];
  for (std::int64_t& count : counts) {
    passPictureAndSound(pool, *attachment, format);
    count = allocationCount();
  }

  EXPECT_EQ(counts[99], counts[0]);
}

TEST_F(SteadyStateTest, ThreadsSharePoolsAndBlockMemoryButNeverABufferOrABlock) {
  Pool pool = makePool(64, 4);
  std::vector<std::jthread> threads;
  for (int seed = 1; seed <= 3; ++seed) {
    threads.emplace_back([pool, seed] {
      const std::string expected(100, static_cast<char>(seed));
      Buffer kept;
      for (int round = 0; round < 2000; ++round) {
        const Block block = makeBlock(nullptr, 100, 0, 100);
        const Buffer buffer = takeBuffer(pool);
        CVPixelBufferLockBaseAddress(buffer.get(), 0);
        auto* pixels = static_cast<char*>(CVPixelBufferGetBaseAddress(buffer.get()));
        for (char* bytes : {dataOf(block), pixels}) std::memset(bytes, seed, 100);
        std::this_thread::yield();
        for (char* bytes : {dataOf(block), pixels}) ASSERT_EQ(std::string(bytes, 100), expected);
        CVPixelBufferUnlockBaseAddress(buffer.get(), 0);
        if (round % 3 == 0) kept = buffer;
      }
    });
  }
  pool = {};  // the threads' references and the buffers that are out keep it
}

}  // namespace

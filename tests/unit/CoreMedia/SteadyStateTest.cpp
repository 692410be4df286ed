#include <support/AllocationCount.h>

#include "MediaTest.h"

namespace {

using SteadyStateTest = FrameworkTest;

/// What capture does for each picture, and for each run of sound that the consumer asks to have aligned.
void passPictureAndSound(const Pool& pool, const Format& format) {
  const Buffer picture = takeBuffer(pool);
  CVBufferSetAttachment(picture.get(), kCVImageBufferPixelAspectRatioKey, format.get(), 1);
  EXPECT_TRUE(samples::frame(picture.get(), CMTimeMake(2, 30)));

  const Block block = makeBlock(nullptr, 4104, 2, 4096);
  AudioBufferList list = {};
  CMBlockBufferRef backing = nullptr;
  ASSERT_EQ(CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                makeAudioSample(block, format, 1024).get(), nullptr, &list, sizeof list, nullptr, nullptr,
                kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, &backing),
            noErr);
  EXPECT_NE(backing, block.get());
  CFRelease(backing);
}

TEST_F(SteadyStateTest, RunningCaptureDoesNotAllocate) {
  if (!AllocationsAreCounted) GTEST_SKIP() << "the allocator is a sanitizer's";
  const Pool pool = makePool(64, 36);
  const Format format = makeAudioFormat(2);
  passPictureAndSound(pool, format);
  const std::int64_t before = allocationCount();

  for (int round = 0; round < 100; ++round) passPictureAndSound(pool, format);

  EXPECT_EQ(allocationCount(), before);
}

}  // namespace

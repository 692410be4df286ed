#include <cstring>
#include <thread>
#include <vector>

#include "MediaTest.h"

#if defined(__has_feature)
#define HAS_FEATURE(name) __has_feature(name)
#else
#define HAS_FEATURE(name) 0
#endif

// A sanitizer has an allocator of its own, which must stay in place.
#if !defined(__GLIBC__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    HAS_FEATURE(address_sanitizer) || HAS_FEATURE(thread_sanitizer)
#define COUNTS_ALLOCATIONS 0
#else
#define COUNTS_ALLOCATIONS 1
#endif

static thread_local std::size_t allocationCount = 0;

#if COUNTS_ALLOCATIONS
// The program's own definitions take precedence over the C library's in every library that it loads; operator new
// ends in malloc.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  ++allocationCount;
  return __libc_malloc(size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  ++allocationCount;
  return __libc_memalign(alignment, size);
}
}
#endif

namespace {

using SteadyStateTest = MediaTest;

/// What capture does for each picture: take a buffer, wrap it, read what a consumer reads.
void passPicture(CVPixelBufferPoolRef pool, const NSDictionary& aspectRatio) {
  const CFRef<CVPixelBufferRef> picture = takeBuffer(pool);
  CVBufferSetAttachment(picture.get(), kCVImageBufferPixelAspectRatioKey, &aspectRatio, 1);
  const CMSampleTimingInfo timing = {CMTimeMake(1, 30), CMTimeMake(2, 30), kCMTimeInvalid};
  CMSampleBufferRef sample = nullptr;
  CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, picture.get(), true, nullptr, nullptr, nullptr, &timing,
                                     &sample);
  EXPECT_EQ(CVBufferGetAttachment(CMSampleBufferGetImageBuffer(sample), kCVImageBufferPixelAspectRatioKey, nullptr),
            &aspectRatio);
  CFRelease(sample);
}

/// What capture does for each run of sound: a block that the consumer asks to have aligned, which copies it.
void passSound(CMFormatDescriptionRef format) {
  CMBlockBufferRef block = nullptr;
  CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, nullptr, 4104, kCFAllocatorDefault, nullptr, 2, 4096, 0,
                                     &block);
  char* data = nullptr;
  CMBlockBufferGetDataPointer(block, 0, nullptr, nullptr, &data);
  std::memset(data, 1, 4096);
  const CFRef<CMSampleBufferRef> sample = makeAudioSample(block, format, 1024);
  CFRelease(block);
  AudioBufferList list = {};
  CMBlockBufferRef backing = nullptr;
  ASSERT_EQ(CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
                sample.get(), nullptr, &list, sizeof list, nullptr, nullptr,
                kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment, &backing),
            noErr);
  EXPECT_NE(list.mBuffers[0].mData, data);
  CFRelease(backing);
}

TEST_F(SteadyStateTest, RunningCaptureDoesNotAllocate) {
  if (!COUNTS_ALLOCATIONS) GTEST_SKIP() << "the allocator is a sanitizer's";
  const CFRef<CVPixelBufferPoolRef> pool = makePool(64, 36);
  const CFRef<CMFormatDescriptionRef> format = makeAudioFormat(2);
  const Ref<NSDictionary> aspectRatio = twoNumbers(kCVImageBufferPixelAspectRatioHorizontalSpacingKey, 4,
                                                   kCVImageBufferPixelAspectRatioVerticalSpacingKey, 3);
  passPicture(pool.get(), *aspectRatio);
  passSound(format.get());

  const std::size_t before = allocationCount;
  for (int round = 0; round < 100; ++round) {
    passPicture(pool.get(), *aspectRatio);
    passSound(format.get());
  }

  EXPECT_EQ(allocationCount, before);
}

TEST_F(SteadyStateTest, ThreadsNeverShareABlock) {
  std::vector<std::thread> threads;
  for (int seed = 1; seed <= 3; ++seed) {
    threads.emplace_back([seed] {
      const std::string expected(100, static_cast<char>(seed));
      for (int round = 0; round < 2000; ++round) {
        CMBlockBufferRef block = nullptr;
        CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, nullptr, 100, kCFAllocatorDefault, nullptr, 0, 100, 0,
                                           &block);
        char* data = nullptr;
        CMBlockBufferGetDataPointer(block, 0, nullptr, nullptr, &data);
        std::memset(data, seed, 100);
        std::this_thread::yield();
        ASSERT_EQ(std::string(data, 100), expected);
        CFRelease(block);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

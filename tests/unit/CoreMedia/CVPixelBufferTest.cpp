#include <CoreVideo/CVPixelBuffer.h>

#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "MediaTest.h"

extern "C" const char* recyclePixelBufferFromC(void);

namespace {

using CVPixelBufferTest = MediaTest;
using CVPixelBufferPoolTest = MediaTest;
using Buffer = CFRef<CVPixelBufferRef>;
using Pool = CFRef<CVPixelBufferPoolRef>;

TEST_F(CVPixelBufferTest, RowsAreAlignedAndWritableToTheirLastByte) {
  const struct {
    std::size_t width;
    std::size_t height;
    std::size_t bytesPerRow;
  } cases[] = {{1, 1, 64}, {31, 3, 64}, {32, 3, 64}, {33, 2, 128}, {719, 5, 1472}, {1920, 2, 3840}, {32768, 1, 65536}};
  for (const auto& c : cases) {
    CVPixelBufferRef made = nullptr;
    ASSERT_EQ(
        CVPixelBufferCreate(kCFAllocatorDefault, c.width, c.height, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &made),
        kCVReturnSuccess);
    const Buffer buffer = Buffer::adopt(made);

    CVPixelBufferLockBaseAddress(made, 0);
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(made), c.bytesPerRow) << c.width;
    ASSERT_EQ(CVPixelBufferGetDataSize(made), c.bytesPerRow * c.height);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(CVPixelBufferGetBaseAddress(made)) % 64, 0u);
    std::memset(CVPixelBufferGetBaseAddress(made), 0x80, CVPixelBufferGetDataSize(made));
    CVPixelBufferUnlockBaseAddress(made, 0);
  }
}

TEST_F(CVPixelBufferTest, SizesAndFormatsOutsideTheModelAreRefused) {
  const struct {
    std::size_t width;
    std::size_t height;
    OSType format;
    CVReturn expected;
  } cases[] = {
      {0, 1, kCVPixelFormatType_422YpCbCr8_yuvs, kCVReturnInvalidSize},
      {1, 32769, kCVPixelFormatType_422YpCbCr8_yuvs, kCVReturnInvalidSize},
      {SIZE_MAX, SIZE_MAX, kCVPixelFormatType_422YpCbCr8_yuvs, kCVReturnInvalidSize},
      {16, 16, 0x32767579, kCVReturnInvalidPixelFormat},
  };
  for (const auto& c : cases) {
    CVPixelBufferRef made = nullptr;
    EXPECT_EQ(CVPixelBufferCreate(kCFAllocatorDefault, c.width, c.height, c.format, nullptr, &made), c.expected);
    EXPECT_EQ(made, nullptr);
  }
  EXPECT_EQ(CVPixelBufferCreate(kCFAllocatorDefault, 16, 16, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, nullptr),
            kCVReturnInvalidArgument);
}

TEST_F(CVPixelBufferTest, BytesAreReachableOnlyBetweenLockAndMatchingUnlock) {
  const Pool pool = makePool(16, 16);
  const Buffer buffer = takeBuffer(pool.get());

  EXPECT_EQ(CVPixelBufferGetBaseAddress(buffer.get()), nullptr);
  CVPixelBufferLockBaseAddress(buffer.get(), 0);
  CVPixelBufferLockBaseAddress(buffer.get(), kCVPixelBufferLock_ReadOnly);
  CVPixelBufferUnlockBaseAddress(buffer.get(), kCVPixelBufferLock_ReadOnly);
  EXPECT_NE(CVPixelBufferGetBaseAddress(buffer.get()), nullptr);
  EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer.get(), 0), kCVReturnSuccess);
  EXPECT_EQ(CVPixelBufferGetBaseAddress(buffer.get()), nullptr);
  EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer.get(), 0), kCVReturnError);
}

TEST_F(CVPixelBufferTest, DisplaySizeFollowsItsAttachmentWhenThatIsUsable) {
  const Pool pool = makePool(1440, 1080);
  const Buffer buffer = takeBuffer(pool.get());
  const auto display = [](double width, double height) {
    return twoNumbers(kCVImageBufferDisplayWidthKey, width, kCVImageBufferDisplayHeightKey, height);
  };
  const struct {
    Ref<NSObject> value;
    double width;
  } cases[] = {
      {display(1920, 1080), 1920},
      {display(0, 1080), 1440},
      {display(1919.5, 1080), 1919.5},
      {display(-1, -1), 1440},
      {NSNumber::numberWithInt(1), 1440},
      {makeRef<NSDictionary>(), 1440},
      {display(std::numeric_limits<double>::infinity(), 1080), 1440},
  };
  for (const auto& c : cases) {
    CVBufferSetAttachment(buffer.get(), kCVImageBufferDisplayDimensionsKey, c.value.get(),
                          kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVImageBufferGetDisplaySize(buffer.get()).width, c.width) << "case " << &c - cases;
    EXPECT_EQ(CVImageBufferGetDisplaySize(buffer.get()).height, 1080) << "case " << &c - cases;
  }
  CVBufferSetAttachment(buffer.get(), kCVImageBufferDisplayDimensionsKey, cases[0].value.get(), 0);
  CVBufferRemoveAllAttachments(buffer.get());
  EXPECT_EQ(CVImageBufferGetDisplaySize(buffer.get()).width, 1440);
}

TEST_F(CVPixelBufferTest, AttachmentsAreFoundByKeyObjectAndByItsText) {
  const Pool pool = makePool(16, 16);
  const Buffer buffer = takeBuffer(pool.get());
  std::vector<Ref<NSNumber>> values;
  for (int i = 0; i < 9; ++i) {
    values.push_back(NSNumber::numberWithInt(i));
    CVBufferSetAttachment(buffer.get(), makeRef<NSString>("key " + std::to_string(i))->toCF(), values.back().get(),
                          kCVAttachmentMode_ShouldPropagate);
  }
  const Ref<NSString> third = makeRef<NSString>("key 3");
  CVBufferSetAttachment(buffer.get(), third->toCF(), values[8].get(), kCVAttachmentMode_ShouldNotPropagate);

  CVAttachmentMode mode = 99;
  EXPECT_EQ(CVBufferGetAttachment(buffer.get(), third->toCF(), &mode), values[8].get());
  EXPECT_EQ(mode, static_cast<CVAttachmentMode>(kCVAttachmentMode_ShouldNotPropagate));
  EXPECT_EQ(CVBufferGetAttachment(buffer.get(), makeRef<NSString>("key 0")->toCF(), nullptr), values[0].get());
  EXPECT_EQ(CVBufferGetAttachment(buffer.get(), kCVImageBufferPixelAspectRatioKey, nullptr), nullptr);
  EXPECT_EQ(values[3]->retainCount(), 1) << "a replaced value is released";
}

TEST_F(CVPixelBufferPoolTest, ReleasedBufferComesBackWithItsBytesAndNothingElse) {
  const Pool pool = makePool(16, 16);
  Buffer buffer = takeBuffer(pool.get());
  const CVPixelBufferRef first = buffer.get();
  const Ref<NSNumber> value = NSNumber::numberWithInt(1);
  CVBufferSetAttachment(first, kCVImageBufferPixelAspectRatioKey, value.get(), kCVAttachmentMode_ShouldPropagate);
  CVPixelBufferLockBaseAddress(first, 0);
  std::memset(CVPixelBufferGetBaseAddress(first), 0x5A, CVPixelBufferGetDataSize(first));

  buffer = {};
  EXPECT_EQ(value->retainCount(), 1);
  buffer = takeBuffer(pool.get());
  const Buffer second = takeBuffer(pool.get());

  EXPECT_EQ(buffer.get(), first);
  EXPECT_NE(second.get(), first);
  EXPECT_EQ(CFGetRetainCount(first), 1);
  EXPECT_EQ(CVBufferGetAttachment(first, kCVImageBufferPixelAspectRatioKey, nullptr), nullptr);
  EXPECT_EQ(CVPixelBufferGetBaseAddress(first), nullptr) << "a forgotten lock does not carry over";
  CVPixelBufferLockBaseAddress(first, 0);
  EXPECT_EQ(static_cast<char*>(CVPixelBufferGetBaseAddress(first))[CVPixelBufferGetDataSize(first) - 1], 0x5A);
}

TEST_F(CVPixelBufferPoolTest, BuffersOutliveTheirPoolAndAreThenFreedOneByOne) {
  const std::int64_t before = NSObject::liveObjectCount();
  Pool pool = makePool(16, 16);
  Buffer kept = takeBuffer(pool.get());
  Buffer keptToo = takeBuffer(pool.get());
  takeBuffer(pool.get());

  pool = {};

  EXPECT_EQ(NSObject::liveObjectCount(), before + 2) << "the idle buffer goes with the pool";
  CVPixelBufferLockBaseAddress(kept.get(), 0);
  std::memset(CVPixelBufferGetBaseAddress(kept.get()), 1, CVPixelBufferGetDataSize(kept.get()));
  kept = {};
  EXPECT_EQ(NSObject::liveObjectCount(), before + 1);
}

TEST_F(CVPixelBufferPoolTest, ThresholdCountsTheBuffersThatAreOut) {
  const Pool pool = makePool(16, 16);
  const auto takeWithin = [&pool](const Ref<NSObject>& threshold, Buffer* out) {
    const auto aux = makeRef<NSDictionary>(
        std::initializer_list<NSDictionary::Entry>{{kCVPixelBufferPoolAllocationThresholdKey, threshold}});
    CVPixelBufferRef made = nullptr;
    const CVReturn status =
        CVPixelBufferPoolCreatePixelBufferWithAuxAttributes(kCFAllocatorDefault, pool.get(), aux->toCF(), &made);
    *out = Buffer::adopt(made);
    return status;
  };
  const Ref<NSObject> two = NSNumber::numberWithInt(2);
  Buffer first = takeBuffer(pool.get());
  Buffer second;
  Buffer third;

  EXPECT_EQ(takeWithin(two, &second), kCVReturnSuccess);
  EXPECT_EQ(takeWithin(two, &third), kCVReturnWouldExceedAllocationThreshold);
  EXPECT_FALSE(third);
  first = {};
  EXPECT_EQ(takeWithin(two, &third), kCVReturnSuccess);
  EXPECT_EQ(takeWithin(NSNumber::numberWithInt(-1), &first), kCVReturnWouldExceedAllocationThreshold);
  EXPECT_EQ(takeWithin(makeRef<NSString>("2"), &first), kCVReturnSuccess) << "no number, no bound";
}

TEST_F(CVPixelBufferPoolTest, AttributesThatMakeNoPictureAreRefused) {
  const auto with = [](CFStringRef key, Ref<NSObject> value) {
    Ref<NSDictionary> attributes = pixelBufferAttributes(16, 16);
    attributes->insert(key, std::move(value));
    return attributes;
  };
  const struct {
    Ref<NSDictionary> attributes;
    CVReturn expected;
  } cases[] = {
      {{}, kCVReturnInvalidArgument},
      {makeRef<NSDictionary>(), kCVReturnInvalidArgument},
      {with(kCVPixelBufferWidthKey, makeRef<NSString>("16")), kCVReturnInvalidArgument},
      {pixelBufferAttributes(-1, 16), kCVReturnInvalidSize},
      {pixelBufferAttributes(16, std::numeric_limits<std::int64_t>::max()), kCVReturnInvalidSize},
      // The right code in the lower 32 bits of a larger number is not the right code.
      {with(kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithLongLong(0x179757673)), kCVReturnInvalidPixelFormat},
  };
  for (const auto& c : cases) {
    CVPixelBufferPoolRef pool = nullptr;
    const CFDictionaryRef attributes = c.attributes ? c.attributes->toCF() : nullptr;
    EXPECT_EQ(CVPixelBufferPoolCreate(kCFAllocatorDefault, nullptr, attributes, &pool), c.expected);
    EXPECT_EQ(pool, nullptr);
  }
}

TEST_F(CVPixelBufferPoolTest, ThreadsShareAPoolThatGoesWhileBuffersAreOut) {
  constexpr int kRounds = 2000;
  Pool pool = makePool(64, 4);
  std::vector<std::thread> threads;
  for (int seed = 1; seed <= 3; ++seed) {
    threads.emplace_back([pool, seed] {
      Buffer kept;
      for (int round = 0; round < kRounds; ++round) {
        Buffer buffer = takeBuffer(pool.get());
        CVPixelBufferLockBaseAddress(buffer.get(), 0);
        auto* bytes = static_cast<unsigned char*>(CVPixelBufferGetBaseAddress(buffer.get()));
        std::memset(bytes, seed, 128);
        ASSERT_EQ(bytes[127], seed) << "nobody else holds this buffer";
        CVPixelBufferUnlockBaseAddress(buffer.get(), 0);
        if (round % 3 == 0) kept = buffer;
      }
    });
  }
  pool = {};
  for (std::thread& thread : threads) thread.join();
}

TEST_F(CVPixelBufferPoolTest, ServesProgramsInC) {
  EXPECT_STREQ(recyclePixelBufferFromC(), nullptr);
}

TEST_F(CVPixelBufferTest, NullBuffersAndPoolsAreTolerated) {
  CVPixelBufferRef buffer = nullptr;

  CVBufferRelease(nullptr);
  CVPixelBufferPoolRelease(nullptr);
  CVBufferSetAttachment(nullptr, kCVImageBufferPixelAspectRatioKey, nullptr, 0);
  EXPECT_EQ(CVBufferGetAttachment(nullptr, kCVImageBufferPixelAspectRatioKey, nullptr), nullptr);
  EXPECT_EQ(CVPixelBufferLockBaseAddress(nullptr, 0), kCVReturnInvalidArgument);
  EXPECT_EQ(CVPixelBufferPoolCreatePixelBuffer(kCFAllocatorDefault, nullptr, &buffer), kCVReturnInvalidArgument);
}

}  // namespace

#include <CoreMedia/CMSampleBuffer.h>

#include <cstring>
#include <string>
#include <vector>

#include "MediaTest.h"

namespace {

using CMSampleBufferTest = MediaTest;
using Block = CFRef<CMBlockBufferRef>;
using Format = CFRef<CMFormatDescriptionRef>;
using Sample = CFRef<CMSampleBufferRef>;

constexpr UInt32 kAligned = kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment;
constexpr AudioFormatFlags kPlanar = kAudioFormatFlagIsNonInterleaved;

/// A list as callers make one: the size is asked for, then the list is filled.
struct List {
  OSStatus status = noErr;
  std::vector<std::uint64_t> storage;
  Block block;

  List(CMSampleBufferRef sample, UInt32 flags) {
    std::size_t size = 0;
    status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sample, &size, nullptr, 0, nullptr, nullptr, flags,
                                                                     nullptr);
    if (status != noErr) return;
    storage.resize(size / sizeof(std::uint64_t));
    CMBlockBufferRef backing = nullptr;
    status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sample, nullptr, list(), size, nullptr, nullptr,
                                                                     flags, &backing);
    block = Block::adopt(backing);
  }

  AudioBufferList* list() { return reinterpret_cast<AudioBufferList*>(storage.data()); }
  const AudioBuffer& buffer(std::size_t index) { return (&list()->mBuffers[0])[index]; }
  std::string bytes(std::size_t index) {
    return {static_cast<const char*>(buffer(index).mData), buffer(index).mDataByteSize};
  }
};

bool isAligned(const void* pointer) {
  return reinterpret_cast<std::uintptr_t>(pointer) % 16 == 0;
}

TEST_F(CMSampleBufferTest, SampleKeepsItsPictureUntilItIsReleased) {
  CFRef<CVPixelBufferRef> picture = takeBuffer(makePool(16, 16).get());
  const CMSampleTimingInfo timing = {CMTimeMake(1001, 30000), CMTimeMake(5, 30000), kCMTimeInvalid};
  CMSampleBufferRef made = nullptr;
  ASSERT_EQ(CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, picture.get(), true, nullptr, nullptr, nullptr,
                                               &timing, &made),
            noErr);
  const Sample sample = Sample::adopt(made);

  picture = {};

  EXPECT_EQ(CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(made)), 16u);
  EXPECT_EQ(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(made), CMTimeMake(5, 30000)), 0);
  EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(made), CMTimeMake(1001, 30000)), 0);
}

TEST_F(CMSampleBufferTest, AudioDurationFollowsTheSampleRate) {
  const Sample sample = makeAudioSample(nullptr, makeAudioFormat(2).get(), 512);
  const Sample withoutFormat = makeAudioSample(nullptr, nullptr, 512);

  EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(sample.get()), CMTimeMake(512, 48000)), 0);
  EXPECT_FALSE(CMTIME_IS_VALID(CMSampleBufferGetDuration(withoutFormat.get())));
}

TEST_F(CMSampleBufferTest, AlignedAudioInOnePieceIsListedInPlace) {
  alignas(16) char bytes[64] = {};
  CMBlockBufferRef made = nullptr;
  CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, bytes, sizeof bytes, kCFAllocatorDefault, nullptr, 0,
                                     sizeof bytes, 0, &made);
  const Block block = Block::adopt(made);

  for (const AudioFormatFlags flags : {AudioFormatFlags{0}, kPlanar}) {
    const Sample sample = makeAudioSample(made, makeAudioFormat(4, flags).get(), 8);
    List list(sample.get(), kAligned);
    const UInt32 planes = flags ? 4 : 1;

    ASSERT_EQ(list.status, noErr);
    EXPECT_EQ(list.block.get(), made);
    ASSERT_EQ(list.list()->mNumberBuffers, planes);
    for (UInt32 plane = 0; plane < planes; ++plane) {
      EXPECT_EQ(list.buffer(plane).mData, bytes + plane * 16);
      EXPECT_EQ(list.buffer(plane).mDataByteSize, 64 / planes);
      EXPECT_EQ(list.buffer(plane).mNumberChannels, 4 / planes);
    }
  }
}

TEST_F(CMSampleBufferTest, ScatteredOrMisalignedAudioIsCopiedPlaneByPlane) {
  std::string whole = "_aaaabbbbcccc";
  std::string head = "aaaabb";
  std::string tail = "bbcccc";
  CMBlockBufferRef misalignedBlock = nullptr;
  const std::size_t offset = isAligned(whole.data() + 1) ? 0 : 1;
  CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, whole.data(), whole.size(), kCFAllocatorDefault, nullptr,
                                     offset, 12, 0, &misalignedBlock);
  const Block misaligned = Block::adopt(misalignedBlock);
  const Block scattered = makeBlock({&head, &tail});
  const std::string content = whole.substr(offset, 12);
  const struct {
    const Block& block;
    std::string content;
    UInt32 flags;
    bool isCopied;
  } cases[] = {
      {misaligned, content, kAligned, true},
      {misaligned, content, 0, false},
      {scattered, head + tail, kAligned, true},
      {scattered, head + tail, 0, true},
  };
  for (const auto& c : cases) {
    for (const UInt32 planes : {1u, 3u}) {
      const Format format = planes == 1 ? makeAudioFormat(2) : makeAudioFormat(planes, kPlanar);
      const Sample sample = makeAudioSample(c.block.get(), format.get(), 2);
      List list(sample.get(), c.flags);

      ASSERT_EQ(list.status, noErr);
      EXPECT_EQ(list.block.get() != c.block.get(), c.isCopied) << "case " << &c - cases;
      std::string joined;
      for (UInt32 plane = 0; plane < planes; ++plane) {
        EXPECT_EQ(list.buffer(plane).mDataByteSize, 12 / planes);
        if (c.flags) {
          EXPECT_TRUE(isAligned(list.buffer(plane).mData)) << "plane " << plane;
        }
        joined += list.bytes(plane);
      }
      EXPECT_EQ(joined, c.content) << "case " << &c - cases;
    }
  }
}

TEST_F(CMSampleBufferTest, ListedAudioOutlivesTheSample) {
  CMBlockBufferRef made = nullptr;
  CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, nullptr, 8, kCFAllocatorDefault, nullptr, 0, 8, 0, &made);
  char* data = nullptr;
  CMBlockBufferGetDataPointer(made, 0, nullptr, nullptr, &data);
  std::memcpy(data, "12345678", 8);
  Sample sample = makeAudioSample(made, makeAudioFormat(2).get(), 2);
  CFRelease(made);

  List list(sample.get(), kAligned);
  sample = {};

  ASSERT_EQ(list.status, noErr);
  EXPECT_EQ(list.bytes(0), "12345678");
}

TEST_F(CMSampleBufferTest, FormatsThatDoNotFitTheDataAreRefused) {
  std::string bytes(48, 'x');
  const Block block = makeBlock({&bytes});
  CMFormatDescriptionRef video = nullptr;
  CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_422YpCbCr8_yuvs, 16, 16, nullptr, &video);
  const Format formats[] = {{},
                            Format::adopt(video),
                            makeAudioFormat(0),
                            makeAudioFormat(5, kPlanar),
                            makeAudioFormat(1025, kPlanar),
                            makeAudioFormat(0xFFFFFFFF, kPlanar)};
  for (const Format& format : formats) {
    List list(makeAudioSample(block.get(), format.get(), 1).get(), kAligned);
    EXPECT_EQ(list.status, kCMSampleBufferError_InvalidMediaFormat) << "format " << &format - formats;
    EXPECT_FALSE(list.block);
  }
}

TEST_F(CMSampleBufferTest, ListArgumentsAreChecked) {
  std::string bytes(48, 'x');
  const Block block = makeBlock({&bytes});
  const Sample sample = makeAudioSample(block.get(), makeAudioFormat(3, kPlanar).get(), 8);
  const Sample withoutData = makeAudioSample(nullptr, makeAudioFormat(3, kPlanar).get(), 8);
  std::uint64_t storage[7] = {};
  auto* list = reinterpret_cast<AudioBufferList*>(storage);
  const auto fill = [](CMSampleBufferRef sbuf, AudioBufferList* out, std::size_t size, CMBlockBufferRef* backing) {
    return CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf, nullptr, out, size, nullptr, nullptr, 0,
                                                                   backing);
  };
  CMBlockBufferRef backing = nullptr;

  EXPECT_EQ(fill(sample.get(), list, sizeof storage - 1, &backing), kCMSampleBufferError_ArrayTooSmall);
  EXPECT_EQ(fill(sample.get(), list, sizeof storage, nullptr), kCMSampleBufferError_RequiredParameterMissing);
  EXPECT_EQ(fill(sample.get(), nullptr, 0, &backing), kCMSampleBufferError_RequiredParameterMissing);
  EXPECT_EQ(fill(nullptr, list, sizeof storage, &backing), kCMSampleBufferError_RequiredParameterMissing);
  EXPECT_EQ(fill(withoutData.get(), list, sizeof storage, &backing), kCMSampleBufferError_RequiredParameterMissing);
  EXPECT_EQ(storage[0], 0u);
  EXPECT_EQ(backing, nullptr);
  EXPECT_FALSE(makeAudioSample(block.get(), nullptr, -1));
}

}  // namespace

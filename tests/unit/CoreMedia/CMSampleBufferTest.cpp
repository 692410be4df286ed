
#include <cstring>
#include <string>
#include <vector>

#include "MediaTest.h"

namespace {

using CMSampleBufferTest = FrameworkTest;

constexpr UInt32 kAligned = kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment;
constexpr AudioFormatFlags kPlanar = kAudioFormatFlagIsNonInterleaved;

/// A list as callers make one: the size is asked for, then the list is filled.
struct List {
  OSStatus status = noErr;
  std::vector<std::uint64_t> storage;
  Block block;

  List(const Sample& sample, UInt32 flags) {
    std::size_t size = 0;
    status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sample.get(), &size, nullptr, 0, nullptr, nullptr,
                                                                     flags, nullptr);
    if (status != noErr) return;
    storage.resize(size / sizeof(std::uint64_t));
    CMBlockBufferRef backing = nullptr;
    status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sample.get(), nullptr, list(), size, nullptr,
                                                                     nullptr, flags, &backing);
    block = Block::adopt(backing);
  }

  AudioBufferList* list() { return reinterpret_cast<AudioBufferList*>(storage.data()); }
  const AudioBuffer& buffer(std::size_t index) { return (&list()->mBuffers[0])[index]; }
  std::string bytes(std::size_t index) {
    return {static_cast<const char*>(buffer(index).mData), buffer(index).mDataByteSize};
  }
};

TEST_F(CMSampleBufferTest, ListedAudioOutlivesTheSampleAndTheBlock) {
  Block block = makeBlock(nullptr, 8, 0, 8);
  std::memcpy(dataOf(block), "12345678", 8);
  Sample sound = makeAudioSample(block, makeAudioFormat(2), 2);
  block = {};
  EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(sound.get()), CMTimeMake(2, 48000)), 0);
  List list(sound, kAligned);
  sound = {};
  EXPECT_EQ(list.bytes(0), "12345678");
}

TEST_F(CMSampleBufferTest, AudioIsListedInPlaceUnlessItIsScatteredOrMisaligned) {
  alignas(16) char memory[] = "aaaabbbbccccddddaaaabbbbccccddddaaaabbbbccccdddd_";
  const Block aligned = makeBlock(memory, 49, 0, 48);
  const Block misaligned = makeBlock(memory, 49, 1, 48);
  const Block scattered = samples::block({{memory, memory + 18}, {memory + 18, memory + 48}});
  const struct {
    const Block& block;
    const char* content;
    UInt32 flags;
    bool isCopied;
  } cases[] = {{aligned, memory, kAligned, false},
               {misaligned, memory + 1, kAligned, true},
               {misaligned, memory + 1, 0, false},
               {scattered, memory, kAligned, true},
               {scattered, memory, 0, true}};
  for (const auto& c : cases) {
    for (const UInt32 planes : {1u, 3u}) {
      const Format format = planes == 1 ? makeAudioFormat(3) : makeAudioFormat(planes, kPlanar);
      List list(makeAudioSample(c.block, format, 8), c.flags);

      ASSERT_EQ(list.status, noErr);
      EXPECT_EQ(list.block.get() != c.block.get(), c.isCopied) << "case " << &c - cases;
      ASSERT_EQ(list.list()->mNumberBuffers, planes);
      std::string joined;
      for (UInt32 plane = 0; plane < planes; ++plane) {
        EXPECT_EQ(list.buffer(plane).mDataByteSize, 48 / planes);
        EXPECT_EQ(list.buffer(plane).mNumberChannels, 3 / planes);
        EXPECT_TRUE(!c.flags || reinterpret_cast<std::uintptr_t>(list.buffer(plane).mData) % 16 == 0) << plane;
        joined += list.bytes(plane);
      }
      EXPECT_EQ(joined, std::string(c.content, 48)) << "case " << &c - cases;
    }
  }
}

TEST_F(CMSampleBufferTest, FormatsThatDoNotFitAreRefused) {
  const Block block = makeBlock(nullptr, 48, 0, 48);
  for (const Format& format : {Format{}, makeAudioFormat(0), makeAudioFormat(5, kPlanar),
                               makeAudioFormat(1025, kPlanar), makeAudioFormat(0xFFFFFFFF, kPlanar)}) {
    EXPECT_EQ(List(makeAudioSample(block, format, 1), kAligned).status, kCMSampleBufferError_InvalidMediaFormat);
  }
}

}  // namespace

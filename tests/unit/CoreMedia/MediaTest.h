#pragma once

// What the tests of samples and pictures share.

#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <support/FrameworkTest.h>
#include <support/Samples.h>

using Block = CFRef<CMBlockBufferRef>;
using Buffer = CFRef<CVPixelBufferRef>;
using Format = CFRef<CMFormatDescriptionRef>;
using Pool = CFRef<CVPixelBufferPoolRef>;
using Sample = CFRef<CMSampleBufferRef>;
using Entries = std::initializer_list<NSDictionary::Entry>;

inline Pool makePool(std::int64_t width, std::int64_t height) {
  const auto attributes = makeRef<NSDictionary>(
      Entries{{kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
              {kCVPixelBufferWidthKey, NSNumber::numberWithLongLong(width)},
              {kCVPixelBufferHeightKey, NSNumber::numberWithLongLong(height)}});
  CVPixelBufferPoolRef pool = nullptr;
  CVPixelBufferPoolCreate(kCFAllocatorDefault, nullptr, attributes->toCF(), &pool);
  return Pool::adopt(pool);
}

inline Buffer takeBuffer(const Pool& pool) {
  CVPixelBufferRef buffer = nullptr;
  CVPixelBufferPoolCreatePixelBuffer(kCFAllocatorDefault, pool.get(), &buffer);
  return Buffer::adopt(buffer);
}

/// 16-bit audio of 48,000 Hz.
inline Format makeAudioFormat(UInt32 channels, AudioFormatFlags extraFlags = 0) {
  const AudioFormatFlags flags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked | extraFlags;
  const UInt32 size = extraFlags & kAudioFormatFlagIsNonInterleaved ? 2 : 2 * channels;
  const AudioStreamBasicDescription audio{48000, kAudioFormatLinearPCM, flags, size, 1, size, channels, 16, 0};
  CMFormatDescriptionRef format = nullptr;
  CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &audio, 0, nullptr, 0, nullptr, nullptr, &format);
  return Format::adopt(format);
}

/// `length` bytes of `memory`, which `source` frees; with null memory, the block has its own.
inline Block makeBlock(void* memory, std::size_t size, std::size_t offset, std::size_t length,
                       const CMBlockBufferCustomBlockSource* source = nullptr, OSStatus expected = noErr) {
  CMBlockBufferRef block = nullptr;
  EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, memory, size, kCFAllocatorDefault, source, offset,
                                               length, 0, &block),
            expected);
  return Block::adopt(block);
}

inline Sample makeAudioSample(const Block& block, const Format& format, CMItemCount frames) {
  CMSampleBufferRef sample = nullptr;
  CMAudioSampleBufferCreateReadyWithPacketDescriptions(kCFAllocatorDefault, block.get(), format.get(), frames,
                                                       CMTimeMake(7, 48000), nullptr, &sample);
  return Sample::adopt(sample);
}

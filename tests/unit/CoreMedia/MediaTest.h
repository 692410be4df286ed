#pragma once

// What the tests of samples and pictures share.

#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <gtest/gtest.h>

#include <string>

/// Every object that a test makes must be gone when it ends.
class MediaTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(NSObject::liveObjectCount(), _objectsBefore); }

 private:
  const std::int64_t _objectsBefore = NSObject::liveObjectCount();
};

inline Ref<NSDictionary> pixelBufferAttributes(std::int64_t width, std::int64_t height) {
  return makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
      {kCVPixelBufferWidthKey, NSNumber::numberWithLongLong(width)},
      {kCVPixelBufferHeightKey, NSNumber::numberWithLongLong(height)}});
}

inline Ref<NSDictionary> twoNumbers(CFStringRef firstKey, double first, CFStringRef secondKey, double second) {
  return makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {firstKey, NSNumber::numberWithDouble(first)}, {secondKey, NSNumber::numberWithDouble(second)}});
}

inline CFRef<CVPixelBufferPoolRef> makePool(std::int64_t width, std::int64_t height) {
  CVPixelBufferPoolRef pool = nullptr;
  CVPixelBufferPoolCreate(kCFAllocatorDefault, nullptr, pixelBufferAttributes(width, height)->toCF(), &pool);
  return CFRef<CVPixelBufferPoolRef>::adopt(pool);
}

inline CFRef<CVPixelBufferRef> takeBuffer(CVPixelBufferPoolRef pool) {
  CVPixelBufferRef buffer = nullptr;
  CVPixelBufferPoolCreatePixelBuffer(kCFAllocatorDefault, pool, &buffer);
  return CFRef<CVPixelBufferRef>::adopt(buffer);
}

/// 16-bit audio of 48,000 Hz.
inline CFRef<CMFormatDescriptionRef> makeAudioFormat(UInt32 channels, AudioFormatFlags extraFlags = 0) {
  const bool planar = (extraFlags & kAudioFormatFlagIsNonInterleaved) != 0;
  const UInt32 frameSize = planar ? 2 : 2 * channels;
  const AudioStreamBasicDescription audio = {48000,
                                             kAudioFormatLinearPCM,
                                             kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked | extraFlags,
                                             frameSize,
                                             1,
                                             frameSize,
                                             channels,
                                             16,
                                             0};
  CMFormatDescriptionRef format = nullptr;
  CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &audio, 0, nullptr, 0, nullptr, nullptr, &format);
  return CFRef<CMFormatDescriptionRef>::adopt(format);
}

/// A block over the pieces' own memory, which the caller keeps.
inline CFRef<CMBlockBufferRef> makeBlock(std::initializer_list<std::string*> pieces) {
  CMBlockBufferRef block = nullptr;
  CMBlockBufferCreateEmpty(kCFAllocatorDefault, 0, 0, &block);
  for (std::string* piece : pieces) {
    CMBlockBufferAppendMemoryBlock(block, piece->data(), piece->size(), kCFAllocatorDefault, nullptr, 0, piece->size(),
                                   0);
  }
  return CFRef<CMBlockBufferRef>::adopt(block);
}

inline CFRef<CMSampleBufferRef> makeAudioSample(CMBlockBufferRef block, CMFormatDescriptionRef format,
                                                CMItemCount frames) {
  CMSampleBufferRef sample = nullptr;
  CMAudioSampleBufferCreateReadyWithPacketDescriptions(kCFAllocatorDefault, block, format, frames, CMTimeMake(7, 48000),
                                                       nullptr, &sample);
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

#pragma once

// Descriptions of audio streams and of buffers that hold their samples.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef UInt32 AudioFormatID;
typedef UInt32 AudioFormatFlags;
enum { kAudioFormatLinearPCM = 0x6C70636D /* 'lpcm' */ };

enum {
  kAudioFormatFlagIsFloat = 1u << 0,
  kAudioFormatFlagIsBigEndian = 1u << 1,
  kAudioFormatFlagIsSignedInteger = 1u << 2,
  kAudioFormatFlagIsPacked = 1u << 3,
  kAudioFormatFlagIsAlignedHigh = 1u << 4,
  kAudioFormatFlagIsNonInterleaved = 1u << 5,
  kAudioFormatFlagIsNonMixable = 1u << 6,
};

/// A packet of linear PCM is one frame: one sample for each channel. With the non-interleaved flag the
/// byte counts are those of one channel's plane.
typedef struct AudioStreamBasicDescription {
  Float64 mSampleRate;
  AudioFormatID mFormatID;
  AudioFormatFlags mFormatFlags;
  UInt32 mBytesPerPacket;
  UInt32 mFramesPerPacket;
  UInt32 mBytesPerFrame;
  UInt32 mChannelsPerFrame;
  UInt32 mBitsPerChannel;
  UInt32 mReserved;
} AudioStreamBasicDescription;

typedef struct AudioStreamPacketDescription {
  SInt64 mStartOffset;
  UInt32 mVariableFramesInPacket;
  UInt32 mDataByteSize;
} AudioStreamPacketDescription;

/// One run of bytes: all channels interleaved, or the plane of one.
typedef struct AudioBuffer {
  UInt32 mNumberChannels;
  UInt32 mDataByteSize;
  void* mData;
} AudioBuffer;

/// A variable-length list: the array really has mNumberBuffers entries.
typedef struct AudioBufferList {
  UInt32 mNumberBuffers;
  AudioBuffer mBuffers[1];
} AudioBufferList;

/// Names the value to be translated and the place for what it translates to.
typedef struct AudioValueTranslation {
  void* mInputData;
  UInt32 mInputDataSize;
  void* mOutputData;
  UInt32 mOutputDataSize;
} AudioValueTranslation;

typedef UInt32 AudioChannelLayoutTag;
/// The number of channels a tag stands for is its lower half.
#define kAudioChannelLayoutTag_Unknown 0xFFFF0000u
enum {
  kAudioChannelLayoutTag_UseChannelDescriptions = 0,  ///< channels are described one by one
  kAudioChannelLayoutTag_Mono = (100u << 16) | 1,
  kAudioChannelLayoutTag_Stereo = (101u << 16) | 2,
  kAudioChannelLayoutTag_Quadraphonic = (108u << 16) | 4,  ///< front left, front right, back left, back right
  kAudioChannelLayoutTag_MPEG_3_0_A = (113u << 16) | 3,    ///< L R C
  kAudioChannelLayoutTag_MPEG_4_0_A = (115u << 16) | 4,    ///< L R C Cs
  kAudioChannelLayoutTag_MPEG_5_0_A = (117u << 16) | 5,    ///< L R C Ls Rs
  kAudioChannelLayoutTag_MPEG_5_1_A = (121u << 16) | 6,    ///< L R C LFE Ls Rs
  kAudioChannelLayoutTag_MPEG_6_1_A = (125u << 16) | 7,    ///< L R C LFE Ls Rs Cs
  kAudioChannelLayoutTag_MPEG_7_1_A = (126u << 16) | 8,    ///< L R C LFE Ls Rs Lc Rc
};

typedef UInt32 AudioChannelLabel;
enum {
  kAudioChannelLabel_Discrete_0 = 1u << 16,  ///< an input that has nothing to do with others; plus its place, from 0
};

typedef struct AudioChannelDescription {
  AudioChannelLabel mChannelLabel;
  UInt32 mChannelFlags;
  Float32 mCoordinates[3];
} AudioChannelDescription;

/// A layout given by its tag, or by descriptions of its channels, which follow it in memory. Channel bitmaps are not
/// modelled, but keep their place.
typedef struct AudioChannelLayout {
  AudioChannelLayoutTag mChannelLayoutTag;
  UInt32 mChannelBitmap;
  UInt32 mNumberChannelDescriptions;
} AudioChannelLayout;

CF_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(AudioValueTranslation) == 32);
static_assert(sizeof(AudioStreamBasicDescription) == 40);
static_assert(offsetof(AudioStreamBasicDescription, mReserved) == 36);
static_assert(sizeof(AudioChannelLayout) == 12 && sizeof(AudioChannelDescription) == 20);
static_assert(sizeof(AudioBuffer) == 16 && offsetof(AudioBufferList, mBuffers) == 8);
#endif

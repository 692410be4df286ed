#pragma once

// One sample: a picture or a run of audio frames, with its format and its time. Counted and immutable.

#include <CoreMedia/CMBlockBuffer.h>
#include <CoreMedia/CMFormatDescription.h>
#include <CoreMedia/CMTime.h>
#include <CoreVideo/CVImageBuffer.h>

CF_EXTERN_C_BEGIN

typedef struct OpaqueCMSampleBuffer* CMSampleBufferRef;
typedef CFIndex CMItemCount;

typedef struct CMSampleTimingInfo {
  CMTime duration;
  CMTime presentationTimeStamp;
  CMTime decodeTimeStamp;
} CMSampleTimingInfo;

enum {
  kCMSampleBufferError_AllocationFailed = -12730,
  kCMSampleBufferError_RequiredParameterMissing = -12731,
  kCMSampleBufferError_ArrayTooSmall = -12737,
  kCMSampleBufferError_InvalidMediaFormat = -12743,
};

enum { kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment = 1u << 0 };

/// A sample of one picture. Retains `imageBuffer` (null: a sample without a picture, of 0 samples) and
/// `formatDescription` (may be null). `dataReady` and the two arguments after it are not modelled: pass true and null.
OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer, Boolean dataReady,
                                            void* makeDataReadyCallback, void* makeDataReadyRefcon,
                                            CMVideoFormatDescriptionRef formatDescription,
                                            const CMSampleTimingInfo* sampleTiming, CMSampleBufferRef* sampleBufferOut);

/// A sample of `numSamples` audio frames. Retains `dataBuffer` (may be null) and `formatDescription`
/// (may be null). Its duration follows from the description's sample rate; without one it is invalid. Packet
/// descriptions are not modelled: pass null.
OSStatus CMAudioSampleBufferCreateReadyWithPacketDescriptions(CFAllocatorRef allocator, CMBlockBufferRef dataBuffer,
                                                              CMFormatDescriptionRef formatDescription,
                                                              CMItemCount numSamples, CMTime presentationTimeStamp,
                                                              const AudioStreamPacketDescription* packetDescriptions,
                                                              CMSampleBufferRef* sampleBufferOut);

CMTime CMSampleBufferGetPresentationTimeStamp(CMSampleBufferRef sbuf);
CMTime CMSampleBufferGetDuration(CMSampleBufferRef sbuf);
CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef sbuf);
/// Borrowed; null when the sample carries none.
CVImageBufferRef CMSampleBufferGetImageBuffer(CMSampleBufferRef sbuf);
/// Borrowed; null when the sample carries none.
CMBlockBufferRef CMSampleBufferGetDataBuffer(CMSampleBufferRef sbuf);
/// Borrowed; null when the sample carries none.
CMFormatDescriptionRef CMSampleBufferGetFormatDescription(CMSampleBufferRef sbuf);

/// Two uses. With a null `bufferListOut`: stores the size in bytes that the list needs. With a list of
/// at least that size: fills it (one buffer, or one for each plane of non-interleaved audio) and returns in
/// `*blockBufferOut` a retained block buffer that backs it, which the caller releases. When the data is in several
/// pieces, or a buffer would not start on 16 bytes and `flags` asks for that, the bytes are copied into a new block.
/// `bufferListSizeNeededOut` may be null in the second use. kCMSampleBufferError_ArrayTooSmall for too small a
/// list; kCMSampleBufferError_InvalidMediaFormat when the description is missing, is no audio description,
/// or does not fit the data (planes of unequal length, more than 1,024 planes, zero channels);
/// kCMSampleBufferError_RequiredParameterMissing when the sample has no data buffer to list.
OSStatus CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(CMSampleBufferRef sbuf,
                                                                 size_t* bufferListSizeNeededOut,
                                                                 AudioBufferList* bufferListOut, size_t bufferListSize,
                                                                 CFAllocatorRef blockBufferStructureAllocator,
                                                                 CFAllocatorRef blockBufferBlockAllocator,
                                                                 uint32_t flags, CMBlockBufferRef* blockBufferOut);

CF_EXTERN_C_END

#pragma once

// Keys of an audio data output's settings; all values are numbers.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

extern const CFStringRef AVFormatIDKey;
extern const CFStringRef AVSampleRateKey;
extern const CFStringRef AVNumberOfChannelsKey;
extern const CFStringRef AVLinearPCMBitDepthKey;
extern const CFStringRef AVLinearPCMIsFloatKey;
extern const CFStringRef AVLinearPCMIsNonInterleaved;
extern const CFStringRef AVLinearPCMIsBigEndianKey;

CF_EXTERN_C_END

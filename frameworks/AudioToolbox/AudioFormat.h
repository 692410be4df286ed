#pragma once

// Names of audio formats and channel layouts, in English, as an operator reads them in a menu. Any thread.

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFString.h>

CF_EXTERN_C_BEGIN

typedef UInt32 AudioFormatPropertyID;
enum {
  /// Specifier: an AudioStreamBasicDescription. Value: a CFStringRef that the caller releases, for example "Linear PCM,
  /// 16 bit little-endian signed integer, 2 channels, 44100 Hz". A channel count or sample rate of 0 is left out.
  kAudioFormatProperty_FormatName = 0x666E616D,  // 'fnam'
  /// Specifier: an AudioChannelLayout. Value: a CFStringRef that the caller releases, for example "Stereo (L R)".
  kAudioFormatProperty_ChannelLayoutName = 0x6C6F6E6D,  // 'lonm'
};

enum {
  kAudioFormatUnspecifiedError = 0x77686174,            // 'what'
  kAudioFormatUnsupportedPropertyError = 0x70726F70,    // 'prop'
  kAudioFormatBadPropertySizeError = 0x2173697A,        // '!siz'
  kAudioFormatBadSpecifierSizeError = 0x21737063,       // '!spc'
  kAudioFormatUnsupportedDataFormatError = 0x666D743F,  // 'fmt?'
  kAudioFormatUnknownFormatError = 0x21666D74,          // '!fmt'
};

/// Reads a property. `*ioPropertyDataSize` is the room at `outPropertyData` (8 bytes for a string) and becomes the
/// bytes written. Formats other than linear PCM: kAudioFormatUnsupportedDataFormatError; layouts without a name:
/// kAudioFormatUnknownFormatError; null pointers: kAudioFormatUnspecifiedError. On an error nothing is written.
OSStatus AudioFormatGetProperty(AudioFormatPropertyID inPropertyID, UInt32 inSpecifierSize, const void* inSpecifier,
                                UInt32* ioPropertyDataSize, void* outPropertyData);

CF_EXTERN_C_END

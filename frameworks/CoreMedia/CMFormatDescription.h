#pragma once

// What a sample holds: medium, codec or pixel format, size, channel layout. Immutable and counted.

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFDictionary.h>

CF_EXTERN_C_BEGIN

typedef const struct OpaqueCMFormatDescription* CMFormatDescriptionRef;
typedef CMFormatDescriptionRef CMVideoFormatDescriptionRef;
typedef CMFormatDescriptionRef CMAudioFormatDescriptionRef;

typedef FourCharCode CMMediaType;
typedef FourCharCode CMVideoCodecType;
enum {
  kCMMediaType_Video = 0x76696465,  // 'vide'
  kCMMediaType_Audio = 0x736F756E,  // 'soun'
  kCMMediaType_Muxed = 0x6D757878,  // 'muxx'
};
enum { kCMMuxedStreamType_MPEG2Transport = 0x6D703274 /* 'mp2t' */ };

enum {
  kCMFormatDescriptionError_InvalidParameter = -12710,
  kCMFormatDescriptionError_AllocationFailed = -12711,
};

typedef struct CMVideoDimensions {
  int32_t width;
  int32_t height;
} CMVideoDimensions;

/// Extension: the format's name for display, a string.
extern const CFStringRef kCMFormatDescriptionExtension_FormatName;
/// Extension: display width and height, two numbers, where they differ from the coded size (a stand-in for
/// clean-aperture data).
extern const CFStringRef kCMFormatDescriptionExtension_PresentationWidth;
extern const CFStringRef kCMFormatDescriptionExtension_PresentationHeight;

/// A video description of the coded size. `extensions` (may be null) is retained. Negative sizes are invalid
/// parameters, here and below; 0 is allowed, for devices that do not say theirs.
OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef allocator, CMVideoCodecType codecType, int32_t width,
                                        int32_t height, CFDictionaryRef extensions,
                                        CMVideoFormatDescriptionRef* formatDescriptionOut);

/// A muxed description that has a size, as camcorders report it.
OSStatus CMMuxedFormatDescriptionCreateWithDimensions(CFAllocatorRef allocator, FourCharCode muxType, int32_t width,
                                                      int32_t height, CFDictionaryRef extensions,
                                                      CMFormatDescriptionRef* formatDescriptionOut);

/// Copies the description and the layout (`layout` may be null). The magic cookie is not modelled: pass 0 and null.
/// A layout that is shorter than it says is an invalid parameter; the numbers of `asbd` are taken as they are.
OSStatus CMAudioFormatDescriptionCreate(CFAllocatorRef allocator, const AudioStreamBasicDescription* asbd,
                                        size_t layoutSize, const AudioChannelLayout* layout, size_t magicCookieSize,
                                        const void* magicCookie, CFDictionaryRef extensions,
                                        CMAudioFormatDescriptionRef* formatDescriptionOut);

CMMediaType CMFormatDescriptionGetMediaType(CMFormatDescriptionRef desc);
FourCharCode CMFormatDescriptionGetMediaSubType(CMFormatDescriptionRef desc);

/// The extension under the key, borrowed; null when there is none.
CFTypeRef CMFormatDescriptionGetExtension(CMFormatDescriptionRef desc, CFStringRef extensionKey);

/// Coded size in pixels; 0 x 0 for audio.
CMVideoDimensions CMVideoFormatDescriptionGetDimensions(CMVideoFormatDescriptionRef videoDesc);

/// Display size: the presentation size when there is one and `useCleanAperture` is set, else the coded size. A size
/// that is not above zero counts as absent. The shape of pixels is attached to pictures, not to formats:
/// `usePixelAspectRatio` is not read.
CGSize CMVideoFormatDescriptionGetPresentationDimensions(CMVideoFormatDescriptionRef videoDesc,
                                                         Boolean usePixelAspectRatio, Boolean useCleanAperture);

/// Borrowed from the description; null when it is not an audio description.
const AudioStreamBasicDescription* CMAudioFormatDescriptionGetStreamBasicDescription(CMAudioFormatDescriptionRef desc);

/// Borrowed from the description, its size in `*sizeOut` (may be null); null and 0 when there is none.
const AudioChannelLayout* CMAudioFormatDescriptionGetChannelLayout(CMAudioFormatDescriptionRef desc, size_t* sizeOut);

CF_EXTERN_C_END

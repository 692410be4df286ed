#include <CoreMedia/CMFormatDescription.h>

#include <Foundation/NSDictionary+Numbers.h>

#include <cstring>
#include <new>
#include <vector>

const CFStringRef kCMFormatDescriptionExtension_FormatName = NSString::constant("FormatName");
const CFStringRef kCMFormatDescriptionExtension_PresentationWidth = NSString::constant("PresentationWidth");
const CFStringRef kCMFormatDescriptionExtension_PresentationHeight = NSString::constant("PresentationHeight");

struct OpaqueCMFormatDescription final : public NSObject {
 public:
  CMMediaType mediaType = 0;
  FourCharCode mediaSubType = 0;
  CMVideoDimensions dimensions{};
  AudioStreamBasicDescription audio{};
  std::vector<std::byte> channelLayout;
  Ref<const NSDictionary> extensions;
};

namespace {

constexpr std::size_t LargestChannelLayout = 65536;

/// The structure and the channel descriptions that it announces lie inside `size` bytes.
bool isWellFormedLayout(const AudioChannelLayout* layout, std::size_t size) noexcept {
  if (!layout) return size == 0;
  if (size < sizeof(AudioChannelLayout) || size > LargestChannelLayout) return false;
  AudioChannelLayout header;
  std::memcpy(&header, layout, sizeof header);
  return header.mNumberChannelDescriptions <= (size - sizeof header) / sizeof(AudioChannelDescription);
}

Ref<OpaqueCMFormatDescription> makeDescription(CMMediaType mediaType, FourCharCode subType,
                                               CFDictionaryRef extensions) noexcept {
  auto description = Ref<OpaqueCMFormatDescription>::adopt(new (std::nothrow) OpaqueCMFormatDescription);
  if (!description) return description;
  description->mediaType = mediaType;
  description->mediaSubType = subType;
  description->extensions = Ref<const NSDictionary>::retain(extensions);
  return description;
}

OSStatus createWithDimensions(CMMediaType mediaType, FourCharCode subType, int32_t width, int32_t height,
                              CFDictionaryRef extensions, CMFormatDescriptionRef* descriptionOut) noexcept {
  if (!descriptionOut) return kCMFormatDescriptionError_InvalidParameter;
  *descriptionOut = nullptr;
  if (width < 0 || height < 0) return kCMFormatDescriptionError_InvalidParameter;
  auto description = makeDescription(mediaType, subType, extensions);
  if (!description) return kCMFormatDescriptionError_AllocationFailed;
  description->dimensions = {width, height};
  *descriptionOut = description.leak();
  return noErr;
}

bool isAudio(CMFormatDescriptionRef desc) noexcept {
  return desc && desc->mediaType == kCMMediaType_Audio;
}

}  // namespace

OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef, CMVideoCodecType codecType, int32_t width, int32_t height,
                                        CFDictionaryRef extensions, CMVideoFormatDescriptionRef* formatDescriptionOut) {
  return createWithDimensions(kCMMediaType_Video, codecType, width, height, extensions, formatDescriptionOut);
}

OSStatus CMMuxedFormatDescriptionCreateWithDimensions(CFAllocatorRef, FourCharCode muxType, int32_t width,
                                                      int32_t height, CFDictionaryRef extensions,
                                                      CMFormatDescriptionRef* formatDescriptionOut) {
  return createWithDimensions(kCMMediaType_Muxed, muxType, width, height, extensions, formatDescriptionOut);
}

OSStatus CMAudioFormatDescriptionCreate(CFAllocatorRef, const AudioStreamBasicDescription* asbd, size_t layoutSize,
                                        const AudioChannelLayout* layout, size_t magicCookieSize, const void*,
                                        CFDictionaryRef extensions, CMAudioFormatDescriptionRef* formatDescriptionOut) {
  if (!formatDescriptionOut) return kCMFormatDescriptionError_InvalidParameter;
  *formatDescriptionOut = nullptr;
  if (!asbd || magicCookieSize != 0 || !isWellFormedLayout(layout, layoutSize)) {
    return kCMFormatDescriptionError_InvalidParameter;
  }

  auto description = makeDescription(kCMMediaType_Audio, asbd->mFormatID, extensions);
  if (!description) return kCMFormatDescriptionError_AllocationFailed;
  description->audio = *asbd;
  try {
    const auto* bytes = reinterpret_cast<const std::byte*>(layout);
    if (layout) description->channelLayout.assign(bytes, bytes + layoutSize);
  } catch (const std::bad_alloc&) {
    return kCMFormatDescriptionError_AllocationFailed;
  }
  *formatDescriptionOut = description.leak();
  return noErr;
}

CMMediaType CMFormatDescriptionGetMediaType(CMFormatDescriptionRef desc) {
  return desc ? desc->mediaType : 0;
}

FourCharCode CMFormatDescriptionGetMediaSubType(CMFormatDescriptionRef desc) {
  return desc ? desc->mediaSubType : 0;
}

CFTypeRef CMFormatDescriptionGetExtension(CMFormatDescriptionRef desc, CFStringRef extensionKey) {
  if (!desc || !desc->extensions || !extensionKey) return nullptr;
  return desc->extensions->objectForKey(extensionKey);
}

CMVideoDimensions CMVideoFormatDescriptionGetDimensions(CMVideoFormatDescriptionRef videoDesc) {
  return videoDesc ? videoDesc->dimensions : CMVideoDimensions{0, 0};
}

CGSize CMVideoFormatDescriptionGetPresentationDimensions(CMVideoFormatDescriptionRef videoDesc, Boolean,
                                                         Boolean useCleanAperture) {
  if (!videoDesc) return {0, 0};
  if (useCleanAperture) {
    const NSDictionary* extensions = videoDesc->extensions.get();
    const double width = positiveNumberForKey(extensions, kCMFormatDescriptionExtension_PresentationWidth);
    const double height = positiveNumberForKey(extensions, kCMFormatDescriptionExtension_PresentationHeight);
    if (width > 0 && height > 0) return {width, height};
  }
  return {static_cast<double>(videoDesc->dimensions.width), static_cast<double>(videoDesc->dimensions.height)};
}

const AudioStreamBasicDescription* CMAudioFormatDescriptionGetStreamBasicDescription(CMAudioFormatDescriptionRef desc) {
  return isAudio(desc) ? &desc->audio : nullptr;
}

const AudioChannelLayout* CMAudioFormatDescriptionGetChannelLayout(CMAudioFormatDescriptionRef desc, size_t* sizeOut) {
  const bool hasLayout = desc && !desc->channelLayout.empty();
  if (sizeOut) *sizeOut = hasLayout ? desc->channelLayout.size() : 0;
  return hasLayout ? reinterpret_cast<const AudioChannelLayout*>(desc->channelLayout.data()) : nullptr;
}

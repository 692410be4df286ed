#include <CoreMedia/CMFormatDescription.h>

#include <CoreVideo/NumberInDictionary.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

const CFStringRef kCMFormatDescriptionExtension_FormatName = NSString::constant("FormatName");
const CFStringRef kCMFormatDescriptionExtension_PixelAspectRatio = NSString::constant("CVPixelAspectRatio");
const CFStringRef kCMFormatDescriptionKey_PixelAspectRatioHorizontalSpacing = NSString::constant("HorizontalSpacing");
const CFStringRef kCMFormatDescriptionKey_PixelAspectRatioVerticalSpacing = NSString::constant("VerticalSpacing");
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

constexpr std::size_t ChannelDescriptionSize = 20;
constexpr std::size_t LargestChannelLayout = 65536;

/// Equal in type and content; objects of other types than these three are equal only to themselves.
bool equalObjects(const NSObject* a, const NSObject* b) noexcept;

bool equalNumbers(const NSNumber& a, const NSNumber& b) noexcept {
  if (a.isFloatType() || b.isFloatType()) return a.doubleValue() == b.doubleValue();
  return a.longLongValue() == b.longLongValue();
}

bool equalDictionaries(const NSDictionary& a, const NSDictionary& b) noexcept {
  return a.count() == b.count() && std::all_of(a.entries().begin(), a.entries().end(), [&b](const auto& entry) {
           return equalObjects(entry.second.get(), b.objectForKey(entry.first->toCF()));
         });
}

bool equalObjects(const NSObject* a, const NSObject* b) noexcept {
  if (a == b) return true;
  if (!a || !b) return false;
  if (const auto* text = dynamic_cast<const NSString*>(a)) {
    const auto* other = dynamic_cast<const NSString*>(b);
    return other && text->text() == other->text();
  }
  if (const auto* number = dynamic_cast<const NSNumber*>(a)) {
    const auto* other = dynamic_cast<const NSNumber*>(b);
    return other && equalNumbers(*number, *other);
  }
  const auto* dictionary = dynamic_cast<const NSDictionary*>(a);
  const auto* other = dynamic_cast<const NSDictionary*>(b);
  return dictionary && other && equalDictionaries(*dictionary, *other);
}

/// No extensions and an empty dictionary of them describe the same.
bool equalExtensions(const NSDictionary* a, const NSDictionary* b) noexcept {
  const bool aIsEmpty = !a || a->count() == 0;
  const bool bIsEmpty = !b || b->count() == 0;
  if (aIsEmpty || bIsEmpty) return aIsEmpty && bIsEmpty;
  return a == b || equalDictionaries(*a, *b);
}

bool equalAudio(const AudioStreamBasicDescription& a, const AudioStreamBasicDescription& b) noexcept {
  return a.mSampleRate == b.mSampleRate && a.mFormatID == b.mFormatID && a.mFormatFlags == b.mFormatFlags &&
         a.mBytesPerPacket == b.mBytesPerPacket && a.mFramesPerPacket == b.mFramesPerPacket &&
         a.mBytesPerFrame == b.mBytesPerFrame && a.mChannelsPerFrame == b.mChannelsPerFrame &&
         a.mBitsPerChannel == b.mBitsPerChannel;
}

/// The structure and the channel descriptions that it announces lie inside `size` bytes.
bool isWellFormedLayout(const AudioChannelLayout* layout, std::size_t size) noexcept {
  if (!layout) return size == 0;
  if (size < sizeof(AudioChannelLayout) || size > LargestChannelLayout) return false;
  AudioChannelLayout header;
  std::memcpy(&header, layout, sizeof header);
  return header.mNumberChannelDescriptions <= (size - sizeof header) / ChannelDescriptionSize;
}

Ref<OpaqueCMFormatDescription> makeDescription(CMMediaType mediaType, FourCharCode subType,
                                               CFDictionaryRef extensions) noexcept {
  auto description = Ref<OpaqueCMFormatDescription>::adopt(new (std::nothrow) OpaqueCMFormatDescription);
  if (!description) return description;
  description->mediaType = mediaType;
  description->mediaSubType = subType;
  description->extensions = Ref<const NSDictionary>::retain(NSDictionary::from(extensions));
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

/// Width of a pixel divided by its height; 1 when the description does not say.
double pixelAspectRatio(CMFormatDescriptionRef desc) noexcept {
  const NSDictionary* ratio =
      dictionaryFromObject(CMFormatDescriptionGetExtension(desc, kCMFormatDescriptionExtension_PixelAspectRatio));
  const double horizontal = positiveNumberForKey(ratio, kCMFormatDescriptionKey_PixelAspectRatioHorizontalSpacing);
  const double vertical = positiveNumberForKey(ratio, kCMFormatDescriptionKey_PixelAspectRatioVerticalSpacing);
  return horizontal > 0 && vertical > 0 ? horizontal / vertical : 1;
}

}  // namespace

OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef, CMVideoCodecType codecType, int32_t width, int32_t height,
                                        CFDictionaryRef extensions, CMVideoFormatDescriptionRef* formatDescriptionOut) {
  return createWithDimensions(kCMMediaType_Video, codecType, width, height, extensions, formatDescriptionOut);
}

OSStatus CMFormatDescriptionCreate(CFAllocatorRef, CMMediaType mediaType, FourCharCode mediaSubType,
                                   CFDictionaryRef extensions, CMFormatDescriptionRef* formatDescriptionOut) {
  return createWithDimensions(mediaType, mediaSubType, 0, 0, extensions, formatDescriptionOut);
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

CGSize CMVideoFormatDescriptionGetPresentationDimensions(CMVideoFormatDescriptionRef videoDesc,
                                                         Boolean usePixelAspectRatio, Boolean useCleanAperture) {
  if (!videoDesc) return {0, 0};
  if (useCleanAperture) {
    const NSDictionary* extensions = videoDesc->extensions.get();
    const double width = positiveNumberForKey(extensions, kCMFormatDescriptionExtension_PresentationWidth);
    const double height = positiveNumberForKey(extensions, kCMFormatDescriptionExtension_PresentationHeight);
    if (width > 0 && height > 0) return {width, height};
  }
  const double ratio = usePixelAspectRatio ? pixelAspectRatio(videoDesc) : 1;
  return {videoDesc->dimensions.width * ratio, static_cast<double>(videoDesc->dimensions.height)};
}

const AudioStreamBasicDescription* CMAudioFormatDescriptionGetStreamBasicDescription(CMAudioFormatDescriptionRef desc) {
  return isAudio(desc) ? &desc->audio : nullptr;
}

const AudioChannelLayout* CMAudioFormatDescriptionGetChannelLayout(CMAudioFormatDescriptionRef desc, size_t* sizeOut) {
  const bool hasLayout = desc && !desc->channelLayout.empty();
  if (sizeOut) *sizeOut = hasLayout ? desc->channelLayout.size() : 0;
  return hasLayout ? reinterpret_cast<const AudioChannelLayout*>(desc->channelLayout.data()) : nullptr;
}

Boolean CMFormatDescriptionEqual(CMFormatDescriptionRef a, CMFormatDescriptionRef b) {
  if (a == b) return true;
  if (!a || !b) return false;
  return a->mediaType == b->mediaType && a->mediaSubType == b->mediaSubType &&
         a->dimensions.width == b->dimensions.width && a->dimensions.height == b->dimensions.height &&
         equalAudio(a->audio, b->audio) && a->channelLayout == b->channelLayout &&
         equalExtensions(a->extensions.get(), b->extensions.get());
}

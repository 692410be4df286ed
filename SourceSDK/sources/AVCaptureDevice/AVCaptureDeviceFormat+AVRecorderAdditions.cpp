#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"

#include <AudioToolbox/AudioFormat.h>
#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <CoreMedia/CMFormatDescription.h>

namespace {

std::optional<std::string> videoName(CMFormatDescriptionRef description) {
  const CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(description);
  const std::string dimensions = std::to_string(size.width) + " x " + std::to_string(size.height);
  if (const CFTypeRef name = CMFormatDescriptionGetExtension(description, kCMFormatDescriptionExtension_FormatName)) {
    return CFStringGetCStringPtr(static_cast<CFStringRef>(name), kCFStringEncodingUTF8) + (", " + dimensions);
  }
  if (size.width >= 1 && size.height >= 1) return dimensions;
  return std::nullopt;
}

/// A name that the platform makes for a description; absent when it has none, or an empty one.
std::optional<std::string> platformName(AudioFormatPropertyID property, UInt32 size, const void* description) {
  CFStringRef name = nullptr;
  UInt32 nameSize = sizeof name;
  if (AudioFormatGetProperty(property, size, description, &nameSize, &name) != noErr || !name) return std::nullopt;
  const auto owned = CFRef<CFStringRef>::adopt(name);
  if (CFStringGetLength(name) == 0) return std::nullopt;
  return CFStringGetCStringPtr(name, kCFStringEncodingUTF8);
}

std::optional<std::string> soundName(CMFormatDescriptionRef description) {
  const AudioStreamBasicDescription* stream = CMAudioFormatDescriptionGetStreamBasicDescription(description);
  if (!stream) return std::nullopt;
  std::size_t layoutSize = 0;
  const AudioChannelLayout* layout = CMAudioFormatDescriptionGetChannelLayout(description, &layoutSize);
  const auto layoutName =
      layout ? platformName(kAudioFormatProperty_ChannelLayoutName, static_cast<UInt32>(layoutSize), layout)
             : std::nullopt;
  // A layout says more than the number of channels, which is left out then.
  AudioStreamBasicDescription named = *stream;
  if (layoutName) named.mChannelsPerFrame = 0;
  auto name = platformName(kAudioFormatProperty_FormatName, sizeof named, &named);
  if (!name) {
    const CFTypeRef given = CMFormatDescriptionGetExtension(description, kCMFormatDescriptionExtension_FormatName);
    if (!given) return std::nullopt;
    name = CFStringGetCStringPtr(static_cast<CFStringRef>(given), kCFStringEncodingUTF8);
  }
  if (layoutName) *name += ", " + *layoutName;
  if (stream->mFormatFlags & kAudioFormatFlagIsNonMixable) *name += ", Non-Mixable";
  return name;
}

}  // namespace

std::optional<std::string> localizedName(const AVCaptureDeviceFormat& format) {
  const CMFormatDescriptionRef description = format.formatDescription();
  if (!description) return std::nullopt;
  switch (CMFormatDescriptionGetMediaType(description)) {
    case kCMMediaType_Video:
    case kCMMediaType_Muxed:
      return videoName(description);
    case kCMMediaType_Audio:
      return soundName(description);
    default:
      return std::nullopt;
  }
}

bool isHDV(const AVCaptureDeviceFormat& format) {
  constexpr int TallestStandardDefinition = 700;
  const CMFormatDescriptionRef description = format.formatDescription();
  if (!description || CMFormatDescriptionGetMediaType(description) != kCMMediaType_Muxed ||
      CMFormatDescriptionGetMediaSubType(description) != kCMMuxedStreamType_MPEG2Transport) {
    return false;
  }
  return CMVideoFormatDescriptionGetPresentationDimensions(description, true, true).height >
             TallestStandardDefinition ||
         CMVideoFormatDescriptionGetDimensions(description).height > TallestStandardDefinition;
}

bool isMixable(const AVCaptureDeviceFormat& format) {
  const CMFormatDescriptionRef description = format.formatDescription();
  if (!description || CMFormatDescriptionGetMediaType(description) != kCMMediaType_Audio) return false;
  const AudioStreamBasicDescription* stream = CMAudioFormatDescriptionGetStreamBasicDescription(description);
  return stream && (stream->mFormatFlags & kAudioFormatFlagIsNonMixable) == 0;
}

#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"

#include <CoreFoundation/CFString.h>
#include <CoreMedia/CMFormatDescription.h>

namespace {

std::optional<std::string> videoName(CMFormatDescriptionRef description) {
  const CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(description);
  const std::string dimensions = std::to_string(size.width) + " x " + std::to_string(size.height);
  if (const CFTypeRef name =
          CMFormatDescriptionGetExtension(description, kCMFormatDescriptionExtension_FormatName)) {
    return CFStringGetCStringPtr(static_cast<CFStringRef>(name), kCFStringEncodingUTF8) + (", " + dimensions);
  }
  if (size.width >= 1 && size.height >= 1) return dimensions;
  return std::nullopt;
}

}  // namespace

std::optional<std::string> localizedName(const AVCaptureDeviceFormat& format) {
  const CMFormatDescriptionRef description = format.formatDescription();
  if (!description) return std::nullopt;
  switch (CMFormatDescriptionGetMediaType(description)) {
    case kCMMediaType_Video:
    case kCMMediaType_Muxed:
      return videoName(description);
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
  return CMVideoFormatDescriptionGetPresentationDimensions(description, true, true).height > TallestStandardDefinition ||
         CMVideoFormatDescriptionGetDimensions(description).height > TallestStandardDefinition;
}

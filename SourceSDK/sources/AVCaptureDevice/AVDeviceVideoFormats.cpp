// Video formats, frame rates and timing figures of a source.

#include <CoreMedia/CMFormatDescription.h>
#include <CoreMedia/CMTime.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>

#include <algorithm>
#include <cstdint>

#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"
#include "AVDevice.h"
#include "AVFrameRateRange+AVRecorderAdditions.h"
#include "common/CommonSDK.h"

namespace AV {
namespace {

/// Larger formats are never chosen without the host.
constexpr std::int64_t MostPixels = std::int64_t{1920} * 1080;

/// Cameras need a moment between a start or a change and the next change.
constexpr unsigned SettlingTimeMicroseconds = 100'000;

std::int64_t pixelCount(const AVCaptureDeviceFormat& format) {
  if (!format.formatDescription()) return 0;
  const CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(format.formatDescription());
  return std::int64_t{size.width} * size.height;
}

bool isIndex(int index, std::size_t count) {
  return index >= 0 && static_cast<std::size_t>(index) < count;
}

/// Of the first of which `is` is true; -1 when there is none.
template <typename Item, typename Is>
int indexOf(const std::vector<Ref<Item>>& items, Is is) {
  const auto found = std::ranges::find_if(items, [&](const Ref<Item>& item) { return is(*item); });
  return found == items.end() ? -1 : static_cast<int>(found - items.begin());
}

/// Borrowed from the device.
const std::vector<Ref<AVCaptureDeviceFormat>>& formatsOf(const Ref<AVCaptureDevice>& device) {
  static const std::vector<Ref<AVCaptureDeviceFormat>> none;
  return device ? device->formats() : none;
}

Ref<AVCaptureDeviceFormat> activeFormatOf(const Ref<AVCaptureDevice>& device) {
  return device ? device->activeFormat() : Ref<AVCaptureDeviceFormat>();
}

/// Borrowed from the format.
const std::vector<Ref<AVFrameRateRange>>& rangesOf(const Ref<AVCaptureDeviceFormat>& format) {
  static const std::vector<Ref<AVFrameRateRange>> none;
  return format ? format->videoSupportedFrameRateRanges() : none;
}

CMVideoDimensions activeDimensions(const Ref<AVCaptureDevice>& device) {
  const auto format = activeFormatOf(device);
  return format && format->formatDescription() ? CMVideoFormatDescriptionGetDimensions(format->formatDescription())
                                               : CMVideoDimensions{0, 0};
}

}  // namespace

int Device::supportedVideoFormatListCount() const {
  const auto device = videoDevice();
  return static_cast<int>(formatsOf(device).size());
}

bool Device::getSupportedVideoFormatString(int index, std::string* out) const {
  const auto device = videoDevice();
  const auto& formats = formatsOf(device);
  if (!isIndex(index, formats.size())) return false;
  const auto name = localizedName(*formats[static_cast<std::size_t>(index)]);
  *out = name ? *name : _name + " - " + CSDK::CopyTranslatedString("av_source_no_video_format_name");
  return true;
}

int Device::getBestSupportedVideoFormatIndex() const {
  const auto device = videoDevice();
  const auto& formats = formatsOf(device);
  std::int64_t best = 0;
  int bestIndex = 0;
  for (std::size_t i = 0; i < formats.size(); ++i) {
    const std::int64_t pixels = pixelCount(*formats[i]);
    if (pixels <= MostPixels && pixels > best) {
      best = pixels;
      bestIndex = static_cast<int>(i);
    }
  }
  return bestIndex;
}

bool Device::getBestSupportedVideoFormatString(std::string* out) const {
  return getSupportedVideoFormatString(getBestSupportedVideoFormatIndex(), out);
}

bool Device::isVideoFormatPotentiallyTooLarge(int index) const {
  const auto device = videoDevice();
  const auto& formats = formatsOf(device);
  return isIndex(index, formats.size()) && pixelCount(*formats[static_cast<std::size_t>(index)]) > MostPixels;
}

bool Device::setSupportedVideoFormat(int index) {
  _videoFormatSelected = true;
  Ref<NSError> error;
  const bool succeeded = _SetSupportedVideoFormat(index, &error);
  if (error) setError(std::move(error));
  return succeeded;
}

/// Stores what the camera says when it cannot be locked in `*error`.
bool Device::_SetSupportedVideoFormat(int index, Ref<NSError>* error) {
  const auto device = videoDevice();
  const auto& formats = formatsOf(device);
  if (!isIndex(index, formats.size())) return false;

  zThread::MicroSleep(SettlingTimeMicroseconds);
  if (!device->lockForConfiguration(error)) {
    zTrace::Default().TraceNote(
        "AV::Device::setSupportedVideoFormat Failed to change format, locking of camera [%s] for configuration failed",
        device->localizedName().c_str());
    return false;
  }
  device->setActiveFormat(formats[static_cast<std::size_t>(index)].get());
  device->unlockForConfiguration();
  return true;
}

int Device::getSelectedVideoFormatIndex() const {
  const auto device = videoDevice();
  const auto active = activeFormatOf(device);
  const auto activeName = active ? localizedName(*active) : std::nullopt;
  if (!activeName) return -1;
  return indexOf(formatsOf(device),
                 [&](const AVCaptureDeviceFormat& format) { return localizedName(format) == activeName; });
}

bool Device::getSelectedVideoFormatString(std::string* out) const {
  const auto device = videoDevice();
  const auto format = activeFormatOf(device);
  const auto name = format ? localizedName(*format) : std::nullopt;
  if (!name) return false;
  *out = *name;
  return true;
}

int Device::supportedVideoFPSCount() const {
  return static_cast<int>(rangesOf(activeFormatOf(videoDevice())).size());
}

float Device::getSupportedVideoFPS(int index) const {
  const auto format = activeFormatOf(videoDevice());
  const auto& ranges = rangesOf(format);
  if (!isIndex(index, ranges.size())) return 0.0F;
  return static_cast<float>(ranges[static_cast<std::size_t>(index)]->minFrameRate());
}

std::string Device::getSupportedVideoFPSTitle(int index) const {
  const auto format = activeFormatOf(videoDevice());
  const auto& ranges = rangesOf(format);
  if (!isIndex(index, ranges.size())) return {};
  return localizedName(*ranges[static_cast<std::size_t>(index)]);
}

bool Device::setVideoFPSIndex(int index) {
  const auto device = videoDevice();
  const auto format = activeFormatOf(device);
  const auto& ranges = rangesOf(format);
  if (!isIndex(index, ranges.size())) return false;
  const CMTime duration = ranges[static_cast<std::size_t>(index)]->minFrameDuration();

  zThread::MicroSleep(SettlingTimeMicroseconds);
  Ref<NSError> error;
  const bool isLocked = device->lockForConfiguration(&error);
  if (isLocked) {
    device->setActiveVideoMinFrameDuration(duration);
    device->unlockForConfiguration();
  } else {
    setError(std::move(error));
    zTrace::Default().TraceNote(
        "AV::Device::setVideoFPSIndex Failed to change frame rate, locking of camera [%s] for configuration failed",
        device->localizedName().c_str());
  }
  if (const auto delegate = videoDelegate()) delegate->dirtyFormat();
  if (const auto delegate = audioDelegate()) delegate->dirtyFormat();
  return isLocked;
}

int Device::getSelectedVideoFPSIndex() const {
  const auto device = videoDevice();
  const auto format = activeFormatOf(device);
  const auto& ranges = rangesOf(format);
  return indexOf(ranges, [&](const AVFrameRateRange& range) {
    return CMTimeCompare(range.minFrameDuration(), device->activeVideoMinFrameDuration()) == 0;
  });
}

std::int32_t Device::getDeviceTimescale() const {
  if (const auto delegate = videoDelegate()) return delegate->timescale();
  if (const auto delegate = audioDelegate()) return delegate->timescale();
  return 0;
}

std::int64_t Device::getDeviceFrameDuration() const {
  Ref<AVCaptureDevice> device;
  std::int32_t timescale;
  if (const auto delegate = videoDelegate()) {
    device = videoDevice();
    timescale = delegate->timescale();
  } else if (const auto soundDelegate = audioDelegate()) {
    device = audioDevice();
    timescale = soundDelegate->timescale();
  } else {
    return -1;
  }
  const CMTime duration = device ? device->activeVideoMinFrameDuration() : kCMTimeZero;
  // To a timescale that is not positive yet the conversion yields the invalid time, whose value is 0.
  return CMTimeConvertScale(duration, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value;
}

int Device::getDeviceWidth() const {
  return activeDimensions(videoDevice()).width;
}

int Device::getDeviceHeight() const {
  return activeDimensions(videoDevice()).height;
}

}  // namespace AV

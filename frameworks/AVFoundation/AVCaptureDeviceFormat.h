#pragma once

// What a capture device can be set to.

#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMFormatDescription.h>
#include <CoreMedia/CMTime.h>
#include <runtime/NSObject.h>

#include <vector>

/// A range of frame rates, in frames per second. Immutable.
class AVFrameRateRange final : public NSObject {
 public:
  AVFrameRateRange(double minFrameRate, double maxFrameRate, CMTime minFrameDuration, CMTime maxFrameDuration)
      : _minFrameRate(minFrameRate),
        _maxFrameRate(maxFrameRate),
        _minFrameDuration(minFrameDuration),
        _maxFrameDuration(maxFrameDuration) {}

  double minFrameRate() const noexcept { return _minFrameRate; }
  double maxFrameRate() const noexcept { return _maxFrameRate; }
  /// The exact duration of a frame at maxFrameRate.
  CMTime minFrameDuration() const noexcept { return _minFrameDuration; }
  /// The exact duration of a frame at minFrameRate.
  CMTime maxFrameDuration() const noexcept { return _maxFrameDuration; }

 private:
  double _minFrameRate;
  double _maxFrameRate;
  CMTime _minFrameDuration;
  CMTime _maxFrameDuration;
};

/// One format of a device. Immutable.
class AVCaptureDeviceFormat final : public NSObject {
 public:
  AVCaptureDeviceFormat(CFRef<CMFormatDescriptionRef> description, std::vector<Ref<AVFrameRateRange>> ranges)
      : _formatDescription(std::move(description)), _ranges(std::move(ranges)) {}

  /// Borrowed; null for a format that has none.
  CMFormatDescriptionRef formatDescription() const noexcept { return _formatDescription.get(); }

  /// In the device's order; empty for sound.
  const std::vector<Ref<AVFrameRateRange>>& videoSupportedFrameRateRanges() const noexcept { return _ranges; }

 private:
  CFRef<CMFormatDescriptionRef> _formatDescription;
  std::vector<Ref<AVFrameRateRange>> _ranges;
};

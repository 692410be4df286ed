#pragma once

// Display names of frame-rate ranges.

#include <AVFoundation/AVCaptureDeviceFormat.h>

#include <string>

/// The highest rate with two decimals, in frames per second: 29.97.
std::string localizedName(const AVFrameRateRange& range);

#pragma once

// Display names of capture formats.

#include <AVFoundation/AVCaptureDeviceFormat.h>

#include <optional>
#include <string>

/// The format's name for display; absent when it has neither a name nor a size, or is of no known medium.
std::optional<std::string> localizedName(const AVCaptureDeviceFormat& format);

/// True for a muxed MPEG-2 transport stream of high definition.
bool isHDV(const AVCaptureDeviceFormat& format);

/// True for a sound format that can be mixed with other sound.
bool isMixable(const AVCaptureDeviceFormat& format);

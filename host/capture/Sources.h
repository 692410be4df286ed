#pragma once

// The module's sources, as people name them on the command line and read of them. Main thread, but for what is marked
// otherwise.

#include <brv.hpp>

#include <cstdint>
#include <map>
#include <string>

#include "capture/FrameTiming.h"
#include "picture/RGBImage.h"

namespace brvhost {

/// The source that `wanted` means: its identifier, the unique identifier of its camera or microphone, its position, or
/// a part of its identifier, as choose has it. Throws UsageError.
brv::Source findSource(const brv::Library& library, const std::string& wanted);

/// The unique identifier of the camera ("video") or microphone ("audio") of a source; empty where it has none.
std::string deviceId(const brv::Source& source, const char* medium);

/// Throws Failure when the source is there no more; it is as long as one of its devices is.
void requirePluggedIn(const brv::Source& source);

/// What is said of a source that has gone.
std::string unpluggedText(const brv::Source& source);

/// How a source counts time. Any thread, data callbacks included.
FrameTiming timingOf(const brv::Source& source);

/// The bytes of a picture, for as long as `pixels` exists, and the shape of its pixels.
PictureView viewOf(const brv::Pixels& pixels);
Rational pixelAspectOf(const brv::Frame& frame);

/// How many samples of a medium ("video" or "audio") the module has dropped since it has the source, by the names
/// that its account gives to the reasons. Empty for a medium that the source lacks.
using Drops = std::map<std::string, std::int64_t>;
Drops dropsOf(const brv::Source& source, const char* medium);

}  // namespace brvhost

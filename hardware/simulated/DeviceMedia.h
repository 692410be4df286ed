#pragma once

// What the clips of a device have to do with its formats.

#include <optional>
#include <string>

#include "Rig.h"

namespace hardware::simulated {

/// Gives a device that plays clips, and whose rig names no formats, the formats of its clips (and the pixel aspect of
/// its pictures). Returns the reason, for display, when a clip cannot be played at the device's formats: then nothing
/// has changed.
std::optional<std::string> adoptMediaFormats(RigDevice& device);

/// Why a device's clips cannot be played at its formats, for display; nothing when they can, or when there are none.
std::optional<std::string> mediaFailure(const RigDevice& device);

}  // namespace hardware::simulated

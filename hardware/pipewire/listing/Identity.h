#pragma once

// Who is who among the sources: a name for display, an ID that stays the same over replugging and restarts, and which
// sources are parts of one piece of hardware. Pure functions of the server's properties.

#include <span>
#include <string>
#include <vector>

#include "listing/Source.h"

namespace hardware::pipewire {

/// The name that people know a source by.
std::string displayName(const Properties& properties);

/// The unique IDs of sources, in their order: the name of the node, with its place on the bus or its serial number
/// where the name does not tell two devices of one kind apart. Sources that even share their place, as the inputs of
/// one card do, are numbered in the order in which the kernel numbers them. Those that are known keep their IDs.
std::vector<std::string> uniqueIDs(std::span<const Source> sources);

/// The piece of hardware that a source is part of, by its place on the bus: the same USB device, the same card. A USB
/// port is on two buses, of two speeds; only the place in the system's tree tells their devices apart. Empty where the
/// server does not tell, and for Bluetooth.
std::string housingOf(const Properties& properties);

/// Whether two cameras are the same one, offered once through V4L2 and once through libcamera.
bool isSameCamera(const Properties& v4l2, const Properties& libcamera);

/// The unique IDs that each source is linked with: sound and pictures of one housing. A single microphone belongs to
/// all cameras of its housing; where there are several, the first belongs to the first, and so on.
std::vector<std::vector<std::string>> linksOf(std::span<const Source> sources, std::span<const std::string> ids);

}  // namespace hardware::pipewire

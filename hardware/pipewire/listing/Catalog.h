#pragma once

// What the server has, as the frameworks list it. A pure function of the server's sources.

#include <Hardware.h>

#include <span>
#include <string>
#include <vector>

#include "listing/CameraFormats.h"
#include "listing/SoundFormats.h"
#include "listing/Source.h"

namespace hardware::pipewire {

/// A device, and how a stream asks for it.
struct ListedDevice {
  DeviceDescription description;
  std::string serial;
  bool awaitsCamera = false;                ///< sound of a USB device, which may have a camera that is not there yet
  std::vector<CameraFormat> cameraFormats;  ///< one for each of the description's
  std::vector<SoundFormat> soundFormats;    ///< likewise
};

/// Whether nothing changed that a host would notice while it captures. That a microphone came to a camera is for the
/// microphone to say.
bool isSameDevice(const ListedDevice& a, const ListedDevice& b);

struct Catalog {
  std::vector<ListedDevice> devices;
  std::vector<UnofferedDevice> unoffered;
};

Catalog catalogOf(std::span<const Source> sources);

}  // namespace hardware::pipewire

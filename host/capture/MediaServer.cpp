#include "capture/MediaServer.h"

namespace brvhost {

const ServerDevice* MediaServer::deviceOf(const std::string& uniqueID) const {
  const ServerDevice* found = nullptr;
  for (const ServerDevice& device : devices) {
    const bool isMeant = !device.name.empty() && uniqueID.starts_with(device.name);
    if (isMeant && (!found || device.name.size() > found->name.size())) found = &device;
  }
  return found;
}

#if !HAS_PIPEWIRE
std::optional<MediaServer> askMediaServer() {
  return std::nullopt;
}
#endif

}  // namespace brvhost

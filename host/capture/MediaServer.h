#pragma once

// What the machine's media server says of itself and of its devices, asked without the module: where the two differ,
// one of them is wrong. Main thread.

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace brvhost {

struct ServerDevice {
  std::string name;                  ///< the server's; a source's device ID begins with it
  std::string description;           ///< for people
  std::vector<std::string> formats;  ///< for people, a line for each encoding
  std::set<std::string> sizes;       ///< of pictures: "640 x 480"
  bool hasAnySize = false;           ///< within limits, so that there are more
  std::vector<std::string> users;    ///< programs that capture from it: "obs (1234)"
};

struct MediaServer {
  std::string problem;         ///< why nothing else is known; else empty
  std::string name;            ///< "PipeWire 1.0.5 (pipewire-0)"
  std::string sessionManager;  ///< its name; empty where none runs
  std::vector<ServerDevice> devices;

  /// The device of a source's camera or microphone; null for one that is not the server's.
  const ServerDevice* deviceOf(const std::string& uniqueID) const;
};

/// Waits two seconds at most. None where this program was built without.
std::optional<MediaServer> askMediaServer();

}  // namespace brvhost

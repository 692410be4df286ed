#pragma once

// A camera or microphone as the server describes it, in plain data.

#include <spa/pod/pod.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/Properties.h"

namespace hardware::pipewire {

/// A format as it came from the server.
struct Pod {
  std::vector<std::uint64_t> words;  ///< aligned as a pod must be

  const spa_pod* get() const { return reinterpret_cast<const spa_pod*>(words.data()); }
  friend bool operator==(const Pod&, const Pod&) = default;
};

struct Source {
  enum class Kind { camera, microphone };

  Kind kind = Kind::camera;
  std::string serial;     ///< what the server calls it for as long as it is there; never again another object
  Properties properties;  ///< the node's; what it does not say itself, its device's
  std::vector<Pod> formats;
  std::string knownID;  ///< the unique ID that it was announced with; empty while it is new
};

}  // namespace hardware::pipewire

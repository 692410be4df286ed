#pragma once

// How the provider on top of PipeWire is had: from a library of its own, which is loaded when it is wanted.

#include <Hardware.h>

#include <memory>

namespace hardware::pipewire {

inline constexpr const char* LibraryName = "libcapture-pipewire.so";

/// The one function that the library exports. Stores a provider of this machine's cameras and microphones, which
/// connects to the server when it is first asked for them.
using MakeProvider = void(std::shared_ptr<Provider>& provider);
inline constexpr const char* MakeProviderName = "hardware_pipewire_makeProvider";

}  // namespace hardware::pipewire

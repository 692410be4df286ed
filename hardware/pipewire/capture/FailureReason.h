#pragma once

#include <string>
#include <string_view>

namespace hardware::pipewire {

/// Why a device cannot deliver, for display. `result` is a negative error number, or 0 where there is only the server's
/// message, which then tells it.
std::string reasonOf(int result, std::string_view message);

}  // namespace hardware::pipewire

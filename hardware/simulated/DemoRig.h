#pragma once

// The rig of a machine whose environment names none. It is a rig file like any other, and an example of one.

#include <string_view>

namespace hardware::simulated {

std::string_view demoRigText();

}  // namespace hardware::simulated

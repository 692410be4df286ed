#pragma once

// The kernel's video devices, whoever offers them: what a colleague would ask about first.

#include <filesystem>
#include <string>
#include <vector>

namespace brvhost {

struct VideoDevice {
  std::string path;                  ///< /dev/video0
  std::string name;                  ///< as the kernel has it
  bool isPermitted = false;          ///< to this user
  std::string permissions;           ///< "crw-rw---- root:video"
  std::vector<std::string> holders;  ///< programs that have it open, as far as may be known: "cheese (1234)"
};

std::vector<VideoDevice> videoDevices(const std::filesystem::path& folder = "/dev");

}  // namespace brvhost

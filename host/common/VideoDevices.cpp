#include "common/VideoDevices.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace brvhost {

namespace {

namespace fs = std::filesystem;

std::string firstLine(const fs::path& path) {
  std::string line;
  std::getline(std::ifstream(path) >> std::ws, line);
  return line;
}

std::string permissionsOf(const fs::path& device) {
  struct stat status = {};
  if (::stat(device.c_str(), &status) != 0) return "";
  std::string text = S_ISCHR(status.st_mode) ? "c" : "-";
  for (unsigned bit = 0; bit < 9; ++bit) text += (status.st_mode & (0400U >> bit)) != 0 ? "rwx"[bit % 3] : '-';
  const passwd* const owner = ::getpwuid(status.st_uid);
  const group* const members = ::getgrgid(status.st_gid);
  return text + " " + (owner ? owner->pw_name : std::to_string(status.st_uid)) + ":" +
         (members ? members->gr_name : std::to_string(status.st_gid));
}

std::vector<std::string> holdersOf(const fs::path& device) {
  std::vector<std::string> holders;
  std::error_code error;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
    const std::string number = process.path().filename();
    if (number.find_first_not_of("0123456789") != number.npos) continue;  // "self" is one of the others
    std::error_code denied;                                               // of another user's
    for (const fs::directory_entry& file : fs::directory_iterator(process.path() / "fd", denied)) {
      if (fs::read_symlink(file.path(), error) != device) continue;
      holders.push_back(firstLine(process.path() / "comm") + " (" + number + ")");
      break;
    }
  }
  return holders;
}

}  // namespace

std::vector<VideoDevice> videoDevices(const fs::path& folder) {
  std::vector<VideoDevice> devices;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with("video") || name.find_first_of("0123456789") != 5) continue;
    devices.push_back({entry.path(), firstLine("/sys/class/video4linux/" + name + "/name"),
                       ::access(entry.path().c_str(), R_OK | W_OK) == 0, permissionsOf(entry.path()),
                       holdersOf(entry.path())});
  }
  std::ranges::sort(devices, {}, [](const VideoDevice& each) { return std::pair(each.path.size(), each.path); });
  return devices;
}

}  // namespace brvhost

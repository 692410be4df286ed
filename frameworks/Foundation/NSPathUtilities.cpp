#include <Foundation/NSPathUtilities.h>

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace {

std::string homeFromUserDatabase() {
  std::vector<char> buffer(1024);
  passwd storage{};
  passwd* entry = nullptr;
  while (getpwuid_r(getuid(), &storage, buffer.data(), buffer.size(), &entry) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  return entry && entry->pw_dir && *entry->pw_dir ? entry->pw_dir : "/";
}

std::string_view withoutTrailingSlashes(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  return path.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

}  // namespace

std::string NSHomeDirectory() {
  const char* home = std::getenv("HOME");
  return home && *home == '/' ? home : homeFromUserDatabase();
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return std::string(component);
  const std::size_t start = component.find_first_not_of('/');
  if (start == std::string_view::npos) return std::string(path);
  std::string joined(withoutTrailingSlashes(path));
  joined += '/';
  joined += component.substr(start);
  return joined;
}

std::string_view lastPathComponent(std::string_view path) {
  const std::string_view trimmed = withoutTrailingSlashes(path);
  if (trimmed.empty()) return path.substr(0, 1);
  const std::size_t slash = trimmed.find_last_of('/');
  return slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1);
}

#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// A folder that goes with the object, and all in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    if (::mkdtemp(_path.data()) == nullptr) std::abort();
  }
  ~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(_path, error);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string file(const std::string& name) const { return _path + "/" + name; }
  bool contains(const std::string& name) const { return std::filesystem::exists(file(name)); }
  std::string contents(const std::string& name) const {
    std::ifstream stream(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  /// Writes a file and returns its path.
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary) << bytes;
    return file(name);
  }

 private:
  std::string _path = (std::filesystem::temp_directory_path() / "test-XXXXXX").string();
};

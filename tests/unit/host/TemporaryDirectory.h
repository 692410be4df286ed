#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace brvhost {

/// A directory that goes with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    if (::mkdtemp(_path.data()) == nullptr) std::abort();
  }
  ~TemporaryDirectory() {
    std::error_code error;
    std::filesystem::remove_all(_path, error);
  }

  std::string file(const std::string& name) const { return _path + "/" + name; }
  bool contains(const std::string& name) const { return std::filesystem::exists(file(name)); }
  std::string contents(const std::string& name) const {
    std::ifstream stream(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

 private:
  std::string _path = (std::filesystem::temp_directory_path() / "brvhost-XXXXXX").string();
};

}  // namespace brvhost

#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace brvhost {

/// A directory that goes with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "brvhost-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data()) == nullptr ? "." : pattern;
  }
  ~TemporaryDirectory() {
    std::error_code error;
    if (path_ != ".") std::filesystem::remove_all(path_, error);
  }

  std::string file(const std::string& name) const { return path_ + "/" + name; }
  bool contains(const std::string& name) const { return std::filesystem::exists(file(name)); }
  std::string contents(const std::string& name) const {
    std::ifstream stream(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

 private:
  std::string path_;
};

}  // namespace brvhost

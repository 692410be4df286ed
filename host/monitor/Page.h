#pragma once

// The files of the page, part of the program.

#include <span>
#include <string_view>

namespace brvhost {

struct PageFile {
  const char* path;  ///< in the address: "/monitor.js"
  const char* type;
  std::string_view content;
};

std::span<const PageFile> pageFiles();

}  // namespace brvhost

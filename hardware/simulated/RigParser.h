#pragma once

// Reads rig files. A file is read whole or not at all; hardware/README.md describes the format.

#include <string>
#include <string_view>
#include <variant>

#include "Rig.h"

namespace hardware::simulated {

struct RigError {
  std::string file;
  int line = 0;  ///< from 1; 0 when the file as a whole is meant
  std::string reason;

  /// "FILE:LINE: reason".
  std::string message() const;
};

/// Reads a rig from text. `fileName` stands in errors, and its folder is where relative media paths begin. Headers of
/// media files are looked into: a clip that cannot be played is an error of the line that names it.
std::variant<Rig, RigError> parseRig(std::string_view text, const std::string& fileName);

/// Reads a rig file.
std::variant<Rig, RigError> loadRig(const std::string& path);

}  // namespace hardware::simulated

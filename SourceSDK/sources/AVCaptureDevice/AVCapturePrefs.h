#pragma once

// The capture side's preference file, read once and never written.

#include <lumora/zRecord.h>

#include <string>

namespace AV {

class CapturePrefs {
 public:
  /// Reads the file at `path`. A missing or malformed one leaves the record empty.
  explicit CapturePrefs(std::string path);

 private:
  std::string _path;
  zRecord _record;
};

}  // namespace AV

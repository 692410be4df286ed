#pragma once

#include <string>

namespace brvhost {

/// How much of a recording may be missing.
struct MissingLimit {
  double seconds = 0.5;  ///< in one hole
  double share = 0.001;  ///< of all frames

  /// "2s" or "1%". Throws UsageError.
  void set(const std::string& text);
};

}  // namespace brvhost

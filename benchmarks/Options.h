#pragma once

// The record of a parameter's options, of which every library builds its own tree, in the XML form of lumora/README.md.

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

inline constexpr int OptionCount = 65'536;

/// "1920 x 1080 - 'yuvs' 0" and so on: what titles of video formats look like, as long and with a character to escape.
inline const std::vector<std::string>& optionTitles() {
  static const std::vector<std::string> titles = [] {
    std::vector<std::string> made;
    for (int i = 0; i < OptionCount; ++i) {
      made.push_back("Full HD & more, 1920 x 1080 (yuvs) " + std::to_string(i));
    }
    return made;
  }();
  return titles;
}

/// The document as this system writes it.
const std::string& optionsDocument();

}  // namespace bench

#pragma once

// Names on the command line, compared without regard to the case of ASCII letters. Other letters must be the same.

#include <algorithm>
#include <string_view>

namespace brvhost {

constexpr char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool beginsWithAnyCase(std::string_view text, std::string_view beginning) {
  return text.size() >= beginning.size() && std::equal(beginning.begin(), beginning.end(), text.begin(),
                                                       [](char a, char b) { return lowered(a) == lowered(b); });
}

inline bool equalsAnyCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && beginsWithAnyCase(a, b);
}

}  // namespace brvhost

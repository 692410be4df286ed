#include "AVFrameRateRange+AVRecorderAdditions.h"

#include <array>
#include <charconv>

std::string localizedName(const AVFrameRateRange& range) {
  // Not printf: its decimal point depends on the host's locale. Enough for the largest double there is.
  std::array<char, 320> text;
  const auto end = std::to_chars(text.begin(), text.end(), range.maxFrameRate(), std::chars_format::fixed, 2).ptr;
  return {text.begin(), end};
}

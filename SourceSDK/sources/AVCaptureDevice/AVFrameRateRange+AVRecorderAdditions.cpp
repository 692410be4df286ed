#include "AVFrameRateRange+AVRecorderAdditions.h"

#include <array>
#include <cstdio>

std::string localizedName(const AVFrameRateRange& range) {
  // Enough for the largest double there is.
  std::array<char, 320> text;
  std::snprintf(text.data(), text.size(), "%0.2f", range.maxFrameRate());
  return text.data();
}

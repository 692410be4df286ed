#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What another program makes of a media file: all of it decoded.
struct DecodedMedia {
  std::vector<std::string> pictures;  ///< planes Y, Cb, Cr without gaps
  std::vector<std::int64_t> stamps;   ///< of the pictures, in ticks
  std::int64_t ticksPerSecond = 0;
  int width = 0, height = 0;
  int aspectNumerator = 0, aspectDenominator = 0;
  std::string sound;        ///< 16 bits, left and right in turn
  double soundSeconds = 0;  ///< where it begins
};

/// Empty where it cannot be read.
DecodedMedia decodeMedia(const std::string& path);

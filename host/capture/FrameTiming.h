#pragma once

#include <cstdint>

#include "picture/Rational.h"

namespace brvhost {

/// In which ticks a source counts, and how many of them a frame lasts. Not above 0: not known.
struct FrameTiming {
  std::int32_t ticksPerSecond = 0;
  std::int64_t frameDuration = 0;

  bool isKnown() const { return ticksPerSecond > 0 && frameDuration > 0; }
  Rational frameRate() const { return reduced(ticksPerSecond, frameDuration); }
  friend bool operator==(const FrameTiming&, const FrameTiming&) = default;
};

/// Ticks as seconds; 0 for an unknown unit.
inline double inSeconds(std::int64_t stamp, std::int32_t ticksPerSecond) {
  return ticksPerSecond > 0 ? static_cast<double>(stamp) / ticksPerSecond : 0;
}

}  // namespace brvhost

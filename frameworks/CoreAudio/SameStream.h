#pragma once

#include <CoreAudio/CoreAudioTypes.h>

#include <cstring>

/// Whether two descriptions are the same bit for bit, reserved fields and sample rates included.
inline bool isSameStream(const AudioStreamBasicDescription& a, const AudioStreamBasicDescription& b) noexcept {
  return std::memcmp(&a, &b, sizeof a) == 0;  // NOLINT(bugprone-suspicious-memory-comparison): there is no padding
}

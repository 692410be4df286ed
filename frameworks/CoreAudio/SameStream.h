#pragma once

#include <CoreAudio/CoreAudioTypes.h>

#include <array>
#include <bit>
#include <cstddef>

/// Whether two descriptions are the same bit for bit, reserved fields and sample rates included.
inline bool isSameStream(const AudioStreamBasicDescription& a, const AudioStreamBasicDescription& b) noexcept {
  using Bytes = std::array<std::byte, sizeof(AudioStreamBasicDescription)>;
  return std::bit_cast<Bytes>(a) == std::bit_cast<Bytes>(b);
}

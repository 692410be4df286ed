#pragma once

// Where a device's sound comes from.

#include <cstdint>
#include <memory>
#include <span>

#include "Rig.h"

namespace hardware::simulated {

/// One thread at a time.
class AudioSource {
 public:
  virtual ~AudioSource() = default;

  /// Renders what comes next, interleaved, 1.0 for full scale; returns the number of frames, which is less than asked
  /// for only at the end.
  virtual std::size_t render(std::span<double> samples, std::uint32_t channels, double sampleRate) = 0;

  /// Whether nothing comes any more.
  virtual bool hasEnded() const = 0;
};

/// Never null; a source without sound when a clip cannot be opened.
std::unique_ptr<AudioSource> makeAudioSource(const SoundSource& description);

}  // namespace hardware::simulated

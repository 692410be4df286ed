#pragma once

// A sine that is the same wherever one begins to listen: each sample is computed from its place alone.

#include <cstdint>
#include <span>

namespace hardware::simulated {

class Tone {
 public:
  /// Frequency in Hz; level of the peak in decibels below full scale.
  Tone(double frequency, double levelInDecibels);

  /// The samples from frame `index` on, counted from where the phase is 0, to within 1e-12 of full scale for days of
  /// sound, at a fraction of what a sine for each would cost.
  void samplesFrom(std::uint64_t index, double sampleRate, std::span<double> samples) const;

 private:
  double phaseAt(std::uint64_t index, double sampleRate) const;

  double _frequency;
  double _amplitude;
};

}  // namespace hardware::simulated

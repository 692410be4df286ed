#include "Tone.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace hardware::simulated {

Tone::Tone(double frequency, double levelInDecibels)
    : _frequency(frequency), _amplitude(std::pow(10.0, levelInDecibels / 20)) {}

double Tone::phaseAt(std::uint64_t index, double sampleRate) const {
  // Whole seconds apart from the rest: their product with the frequency keeps its fraction exact where the product of a
  // large index would not.
  const double seconds = std::floor(static_cast<double>(index) / sampleRate);
  const double rest = static_cast<double>(index) - seconds * sampleRate;
  const double cycles = std::fmod(_frequency * seconds, 1.0) + _frequency * rest / sampleRate;
  return 2 * std::numbers::pi * cycles;
}

void Tone::samplesFrom(std::uint64_t index, double sampleRate, std::span<double> samples) const {
  // Turned on from sample to sample, and set right before errors of rounding have added up.
  constexpr std::size_t MostTurns = 512;
  const double step = phaseAt(1, sampleRate);
  const double stepSine = std::sin(step);
  const double stepCosine = std::cos(step);
  while (!samples.empty()) {
    const auto run = samples.first(std::min(samples.size(), MostTurns));
    const double phase = phaseAt(index, sampleRate);
    double sine = _amplitude * std::sin(phase);
    double cosine = _amplitude * std::cos(phase);
    for (double& sample : run) {
      sample = sine;
      const double next = sine * stepCosine + cosine * stepSine;
      cosine = cosine * stepCosine - sine * stepSine;
      sine = next;
    }
    index += run.size();
    samples = samples.subspan(run.size());
  }
}

}  // namespace hardware::simulated

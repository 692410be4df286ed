#include "Tone.h"

#include <cmath>
#include <numbers>

namespace hardware::simulated {

Tone::Tone(double frequency, double levelInDecibels)
    : _frequency(frequency), _amplitude(std::pow(10.0, levelInDecibels / 20)) {}

double Tone::sampleAt(std::uint64_t index, double sampleRate) const {
  // Whole seconds apart from the rest: their product with the frequency keeps its fraction exact where the product of a
  // large index would not.
  const double seconds = std::floor(static_cast<double>(index) / sampleRate);
  const double rest = static_cast<double>(index) - seconds * sampleRate;
  const double cycles = std::fmod(_frequency * seconds, 1.0) + _frequency * rest / sampleRate;
  return _amplitude * std::sin(2 * std::numbers::pi * cycles);
}

}  // namespace hardware::simulated

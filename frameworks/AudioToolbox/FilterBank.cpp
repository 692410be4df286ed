#include <AudioToolbox/FilterBank.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>
#include <numeric>

namespace AudioConversion {
namespace {

// From 48 to 44.1 kHz these make 120 taps, 21.4 kHz at -6 dB, and a window whose side lobes are 123 dB down.
constexpr double kTapsAtEqualRates = 110.25;
constexpr double kCutoff = 21.4 / 22.05;
constexpr double kWindowShape = 12.5;

// A table of this many coefficients is a megabyte at most; ratios that need more are interpolated.
constexpr uint64_t kMostCoefficients = uint64_t{1} << 17;

// Rows in an input frame from which cubic interpolation is good to -160 dB when the cut-off is the input's Nyquist
// frequency. A lower cut-off makes the filter smoother and needs fewer.
constexpr double kInterpolatedPhases = 128;
constexpr size_t kFewestInterpolatedPhases = 8;

// Cubic interpolation reaches one row before and two behind its place.
constexpr size_t kRowsBefore = 1;
constexpr size_t kRowsBehind = 2;

constexpr size_t kCachedBanks = 16;

// The modified Bessel function of order 0, by its series.
double besselI0(double x) noexcept {
  const double quarterSquare = x * x / 4;
  double term = 1;
  double sum = 1;
  for (int k = 1; term > sum * 1e-17; ++k) {
    term *= quarterSquare / (k * k);
    sum += term;
  }
  return sum;
}

// The filter's impulse response at a distance in input frames, unscaled; `cutoff` in cycles for each input frame.
double responseAt(double distance, double halfWidth, double cutoff) noexcept {
  const double x = distance / halfWidth;
  if (std::abs(x) >= 1) return 0;
  const double window = besselI0(kWindowShape * std::sqrt(1 - x * x));
  const double angle = 2 * std::numbers::pi * cutoff * distance;
  return window * (std::abs(angle) < 1e-9 ? 1 : std::sin(angle) / angle);
}

// Scaled to unit gain at 0 Hz: equal in all rows, so that a constant stays one.
template <typename Work>
void fillRow(double place, size_t taps, double cutoff, std::vector<double>& scratch, Work* row) {
  const double halfWidth = static_cast<double>(taps) / 2;
  for (size_t t = 0; t < taps; ++t) {
    scratch[t] = responseAt(static_cast<double>(t) - (halfWidth - 1) - place, halfWidth, cutoff);
  }
  const double sum = std::accumulate(scratch.begin(), scratch.end(), 0.0);
  for (size_t t = 0; t < taps; ++t) row[t] = static_cast<Work>(scratch[t] / sum);
}

}  // namespace

RateRatio RateRatio::between(double inputRate, double outputRate) noexcept {
  // From 8 kHz on, a double's last bit is worth 2^-40 or more: scaled by 2^40, every rate is a whole number below 2^58.
  const auto in = static_cast<uint64_t>(std::ldexp(inputRate, 40));
  const auto out = static_cast<uint64_t>(std::ldexp(outputRate, 40));
  const uint64_t divisor = std::gcd(in, out);
  return {out / divisor, in / divisor};
}

template <typename Work>
FilterBank<Work>::FilterBank(const RateRatio& ratio) {
  const double step = ratio.inputFramesPerOutputFrame();
  const double lowerRate = std::min(1.0, 1.0 / step);  // as a fraction of the input's
  const double cutoff = kCutoff * lowerRate / 2;
  const auto eights = static_cast<size_t>(std::ceil(kTapsAtEqualRates / lowerRate / 8 - 1e-6));
  _taps = eights * 8;
  _hasEveryPhase = ratio.up <= kMostCoefficients / _taps;

  std::vector<double> scratch(_taps);
  if (_hasEveryPhase) {
    _phases = static_cast<size_t>(ratio.up);
    allocateRows(_phases);
    for (size_t p = 0; p < _phases; ++p) {
      fillRow(static_cast<double>(p) / static_cast<double>(_phases), _taps, cutoff, scratch, row(p));
    }
    return;
  }
  _phases = std::max(kFewestInterpolatedPhases, static_cast<size_t>(std::ceil(kInterpolatedPhases * lowerRate)));
  const size_t rows = kRowsBefore + _phases + kRowsBehind;
  allocateRows(rows);
  for (size_t r = 0; r < rows; ++r) {
    const double place = (static_cast<double>(r) - kRowsBefore) / static_cast<double>(_phases);
    fillRow(place, _taps, cutoff, scratch, row(r));
  }
}

template <typename Work>
void FilterBank<Work>::interpolate(double place, Work* row) const noexcept {
  const double at = place * static_cast<double>(_phases);
  const size_t below = std::min(static_cast<size_t>(at), _phases - 1);
  const double x = at - static_cast<double>(below);
  const Work weights[] = {static_cast<Work>(-x * (x - 1) * (x - 2) / 6),
                          static_cast<Work>((x + 1) * (x - 1) * (x - 2) / 2),
                          static_cast<Work>(-(x + 1) * x * (x - 2) / 2), static_cast<Work>((x + 1) * x * (x - 1) / 6)};
  const Work* const first = rows() + (below + kRowsBefore - 1) * _taps;
  for (size_t t = 0; t < _taps; ++t) {
    row[t] = weights[0] * first[t] + weights[1] * first[t + _taps] + weights[2] * first[t + 2 * _taps] +
             weights[3] * first[t + 3 * _taps];
  }
}

template <typename Work>
std::shared_ptr<const FilterBank<Work>> FilterBank<Work>::forRatio(const RateRatio& ratio) {
  struct Cached {
    RateRatio ratio;
    std::shared_ptr<const FilterBank> bank;
  };
  // Never destroyed: a converter may be made as late as at the end of the process.
  static auto& mutex = *new std::mutex;
  static auto& cache = *new std::vector<Cached>;  // most recently used last
  const auto find = [&]() -> std::shared_ptr<const FilterBank> {
    const auto found =
        std::find_if(cache.begin(), cache.end(), [&](const Cached& entry) { return entry.ratio == ratio; });
    if (found == cache.end()) return nullptr;
    std::rotate(found, found + 1, cache.end());
    return cache.back().bank;
  };
  {
    const std::lock_guard lock(mutex);
    if (auto bank = find()) return bank;
  }
  // Made without the lock, so that nobody who needs another one waits for it. Of two threads that make the same one,
  // the second takes the first's.
  auto bank = std::make_shared<const FilterBank>(ratio);
  const std::lock_guard lock(mutex);
  if (auto made = find()) return made;
  if (cache.size() == kCachedBanks) cache.erase(cache.begin());
  cache.push_back({ratio, bank});
  return bank;
}

template class FilterBank<float>;
template class FilterBank<double>;

}  // namespace AudioConversion

#include <AudioToolbox/Converter/FilterBank.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>
#include <numeric>
#include <utility>

namespace AudioConversion {
namespace {

// The filter's frequency response at whole cycles of its width, which determine everything between them. Those not
// listed are 1 below and 0 above. The ones listed make the largest deviations as small as they can be, for an impulse
// response that ends in zero: up to 20/22.05 of the lower Nyquist frequency 0.0009 dB, and from 23/22.05 on -122 dB,
// where a deviation weighs 130 times as much. A windowed sinc, whose deviations are alike in both bands, needs to be
// longer by a fifth.
constexpr double PeriodsOfLowerRate = 91.8;  // the filter's width: 100 taps from 48 to 44.1 kHz
constexpr int FirstListed = 24;
constexpr double Response[] = {
    1.0000699545, 0.9999071759, 1.0000999608, 0.9999009628,  1.0000928220,  0.9999166488,  1.0000720760,
    0.9999406042, 1.0000466835, 0.9999655586, 1.0000233654,  0.9999856908,  1.0000080472,  0.9999935366,
    1.0000119598, 0.9999704014, 1.0000672414, 0.9999038960,  0.9965624974,  0.9099286083,  0.6072951991,
    0.2328149345, 0.0395886522, 0.0017086144, -0.0000007630, -0.0000003401, -0.0000006419, 0.0000007622,
};

// A table of this many coefficients is a megabyte at most; ratios that need more are interpolated.
constexpr uint64_t MostCoefficients = uint64_t{1} << 17;

// A cycle of fewer outputs is repeated until it consists of full groups.
constexpr uint64_t LongCycle = 64;

// Rows in an input frame from which cubic interpolation is good to -160 dB when the cut-off is the input's Nyquist
// frequency. A lower cut-off makes the filter smoother and needs fewer.
constexpr double InterpolatedPhases = 128;
constexpr size_t FewestInterpolatedPhases = 8;

// Cubic interpolation reaches one row before and two after its place.
constexpr size_t RowsBefore = 1;
constexpr size_t RowsBehind = 2;

constexpr size_t CachedBanks = 16;

// The filter's impulse response, unscaled, at a place in it; its ends are -1 and 1. That is a sum of cosines, one for
// each frequency, which Clenshaw's recurrence takes from the highest to the lowest.
double responseAt(double place) noexcept {
  if (std::abs(place) >= 1) return 0;
  const double twice = 2 * std::cos(std::numbers::pi * place);
  double sum = 0;
  double former = 0;
  for (int k = FirstListed + static_cast<int>(std::size(Response)) - 1; k > 0; --k) {
    const double response = k < FirstListed ? 1 : Response[k - FirstListed];
    former = std::exchange(sum, response + twice * sum - former);
  }
  return 0.5 + twice / 2 * sum - former;
}

// Kernels take this many input frames at a time.
constexpr size_t roundedUp(size_t frames) noexcept {
  return (frames + 7) / 8 * 8;
}

// Scaled to unit gain at 0 Hz: equal in all rows, so that a constant stays one.
template <typename Work>
void makeRow(double place, double width, std::vector<double>& scratch, Work* row) {
  const size_t middle = scratch.size() / 2 - 1;
  const double centre = static_cast<double>(middle) + place;
  for (size_t t = 0; t < scratch.size(); ++t) scratch[t] = responseAt((static_cast<double>(t) - centre) / (width / 2));
  const double sum = std::accumulate(scratch.begin(), scratch.end(), 0.0);
  std::transform(scratch.begin(), scratch.end(), row, [sum](double each) { return static_cast<Work>(each / sum); });
}

}  // namespace

RateRatio RateRatio::between(double inputRate, double outputRate) noexcept {
  // From 8 kHz on, a double's last bit is worth 2^-40 or more: scaled by 2^40, every rate is a whole number below 2^58.
  const auto in = static_cast<uint64_t>(std::ldexp(inputRate, 40));
  const auto out = static_cast<uint64_t>(std::ldexp(outputRate, 40));
  const uint64_t divisor = std::gcd(in, out);
  return {out / divisor, in / divisor};
}

OutputPlace OutputPlace::next(const RateRatio& ratio) const noexcept {
  OutputPlace result{frame + static_cast<size_t>(ratio.down / ratio.up), phase + ratio.down % ratio.up};
  if (result.phase >= ratio.up) {
    result.phase -= ratio.up;
    ++result.frame;
  }
  return result;
}

template <typename Work>
FilterBank<Work>::FilterBank(const RateRatio& ratio) : _ratio(ratio) {
  const double step = ratio.inputFramesPerOutputFrame();
  const double width = PeriodsOfLowerRate * std::max(1.0, step);
  _taps = 2 * static_cast<size_t>(std::ceil(width / 2));
  _reach = roundedUp(_taps + static_cast<size_t>(std::ceil((Group::kMostFrames - 1) * step)));

  const uint64_t wholeGroups = Group::kMostFrames / std::gcd(ratio.up, Group::kMostFrames);
  const uint64_t outputs = ratio.up < LongCycle ? ratio.up * wholeGroups : ratio.up;
  if (outputs <= MostCoefficients / _reach) {
    makeCycle(outputs, width);
  } else {
    makeRowsToInterpolate(width);
  }
}

template <typename Work>
template <typename MakeRow>
FilterGroup<Work> FilterBank<Work>::makeGroup(uint64_t phase, uint32_t frames, Work* coefficients,
                                              const MakeRow& makeRowAt) const {
  Group group{coefficients, frames};
  OutputPlace place{0, phase};
  for (size_t i = 0; i < frames; ++i) {
    makeRowAt(static_cast<double>(place.phase) / static_cast<double>(_ratio.up),
              coefficients + i * _reach + place.frame);
    group.starts[i] = static_cast<uint32_t>(place.frame);
    place = place.next(_ratio);
  }
  group.starts[frames] = static_cast<uint32_t>(place.frame);
  return group;
}

template <typename Work>
void FilterBank<Work>::makeCycle(uint64_t outputs, double width) {
  const size_t eights = Group::kMostFrames * _reach / 8;
  const uint64_t groups = (outputs + Group::kMostFrames - 1) / Group::kMostFrames;
  _coefficients.resize(groups * eights);
  _groups.reserve(groups);

  std::vector<double> scratch(_taps);
  const auto exactly = [&](double place, Work* row) { makeRow(place, width, scratch, row); };
  for (uint64_t output = 0; output < outputs; output += Group::kMostFrames) {
    const auto frames = static_cast<uint32_t>(std::min<uint64_t>(Group::kMostFrames, outputs - output));
    Work* const coefficients = _coefficients[_groups.size() * eights].coefficient;
    _groups.push_back(makeGroup(output * _ratio.down % _ratio.up, frames, coefficients, exactly));
  }
  // Kernels are called for a part of a cycle; where that would be short, it is a part of several.
  for (size_t g = 0; _groups.size() < LongCycle / Group::kMostFrames; ++g) _groups.push_back(Group(_groups[g]));
}

template <typename Work>
void FilterBank<Work>::makeRowsToInterpolate(double width) {
  const double phases = std::ceil(InterpolatedPhases * PeriodsOfLowerRate / width);
  _interpolatedPhases = std::max(FewestInterpolatedPhases, static_cast<size_t>(phases));
  const size_t rows = RowsBefore + _interpolatedPhases + RowsBehind;
  _coefficients.resize(rows * _reach / 8);

  std::vector<double> scratch(_taps);
  for (size_t r = 0; r < rows; ++r) {
    const double place = (static_cast<double>(r) - RowsBefore) / static_cast<double>(_interpolatedPhases);
    makeRow(place, width, scratch, _coefficients[r * _reach / 8].coefficient);
  }
}

template <typename Work>
FilterGroup<Work> FilterBank<Work>::interpolateGroup(uint64_t phase, Eight* memory) const noexcept {
  Work* const coefficients = memory->coefficient;
  std::fill_n(coefficients, Group::kMostFrames * _reach, Work{0});
  return makeGroup(phase, Group::kMostFrames, coefficients,
                   [this](double place, Work* row) { interpolate(place, row); });
}

template <typename Work>
void FilterBank<Work>::interpolate(double place, Work* row) const noexcept {
  const double at = place * static_cast<double>(_interpolatedPhases);
  const size_t below = std::min(static_cast<size_t>(at), _interpolatedPhases - 1);
  const double x = at - static_cast<double>(below);
  const Work weights[] = {static_cast<Work>(-x * (x - 1) * (x - 2) / 6),
                          static_cast<Work>((x + 1) * (x - 1) * (x - 2) / 2),
                          static_cast<Work>(-(x + 1) * x * (x - 2) / 2), static_cast<Work>((x + 1) * x * (x - 1) / 6)};
  const Work* const first = _coefficients[(below + RowsBefore - 1) * _reach / 8].coefficient;
  for (size_t t = 0; t < _taps; ++t) {
    row[t] = weights[0] * first[t] + weights[1] * first[t + _reach] + weights[2] * first[t + 2 * _reach] +
             weights[3] * first[t + 3 * _reach];
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
  if (cache.size() == CachedBanks) cache.erase(cache.begin());
  cache.push_back({ratio, bank});
  return bank;
}

template class FilterBank<float>;
template class FilterBank<double>;

}  // namespace AudioConversion

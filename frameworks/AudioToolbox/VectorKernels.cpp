#include <AudioToolbox/VectorKernels.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace AudioConversion {
namespace {

// Vectors of 16 bytes, which every 64-bit processor has; the compiler knows how.
template <typename Work>
struct VectorOf;
template <>
struct VectorOf<float> {
  typedef float Type __attribute__((vector_size(16)));
};
template <>
struct VectorOf<double> {
  typedef double Type __attribute__((vector_size(16)));
};
template <typename Work>
using Vector = typename VectorOf<Work>::Type;
template <typename Work>
inline constexpr size_t kLanes = 16 / sizeof(Work);

template <typename Work>
Vector<Work> load(const Work* from) {
  Vector<Work> result;
  std::memcpy(&result, from, sizeof result);
  return result;
}

template <typename Work>
void store(Work* to, Vector<Work> values) {
  std::memcpy(to, &values, sizeof values);
}

template <typename Work>
Work sumOf(Vector<Work> values) {
  if constexpr (kLanes<Work> == 4) {
    const Vector<Work> pairs = values + __builtin_shufflevector(values, values, 2, 3, 2, 3);
    return pairs[0] + pairs[1];
  } else {
    return values[0] + values[1];
  }
}

template <typename Work>
void advance(FilterRun<Work>& run) {
  run.frame += run.stepFrames;
  run.phase += run.stepPhases;
  if (run.phase >= run.phases) {
    run.phase -= run.phases;
    ++run.frame;
  }
}

// Two sums for each channel, as additions wait for each other.

template <typename Work>
size_t filterOne(FilterRun<Work>& state, const Work* in, Work* out, size_t frames) {
  constexpr size_t kStep = kLanes<Work>;
  FilterRun<Work> run = state;
  size_t produced = 0;
  for (; produced < frames && run.frame <= run.lastFrame; ++produced) {
    const Work* const row = run.rows + run.phase * run.taps;
    const Work* const samples = in + run.frame;
    Vector<Work> even{}, odd{};
    for (size_t t = 0; t < run.taps; t += 2 * kStep) {
      even += load(row + t) * load(samples + t);
      odd += load(row + t + kStep) * load(samples + t + kStep);
    }
    out[produced] = sumOf<Work>(even + odd);
    advance(run);
  }
  state = run;
  return produced;
}

template <typename Work>
size_t filterTwo(FilterRun<Work>& state, const Work* in0, const Work* in1, Work* out0, Work* out1, size_t frames) {
  constexpr size_t kStep = kLanes<Work>;
  FilterRun<Work> run = state;
  size_t produced = 0;
  for (; produced < frames && run.frame <= run.lastFrame; ++produced) {
    const Work* const row = run.rows + run.phase * run.taps;
    const Work* const samples0 = in0 + run.frame;
    const Work* const samples1 = in1 + run.frame;
    Vector<Work> even0{}, odd0{}, even1{}, odd1{};
    for (size_t t = 0; t < run.taps; t += 2 * kStep) {
      const Vector<Work> even = load(row + t);
      even0 += even * load(samples0 + t);
      even1 += even * load(samples1 + t);
      const Vector<Work> odd = load(row + t + kStep);
      odd0 += odd * load(samples0 + t + kStep);
      odd1 += odd * load(samples1 + t + kStep);
    }
    out0[produced] = sumOf<Work>(even0 + odd0);
    out1[produced] = sumOf<Work>(even1 + odd1);
    advance(run);
  }
  state = run;
  return produced;
}

template <typename Work>
void silenceNonFinite(Work* samples, size_t count) {
  constexpr Work kLargest = std::numeric_limits<Work>::max();
  for (size_t i = 0; i < count; ++i) samples[i] = std::abs(samples[i]) <= kLargest ? samples[i] : Work{0};
}

PredictionKernels::Correlation correlate(const double* forward, const double* backward, size_t count) {
  Vector<double> cross{}, forwardEnergy{}, backwardEnergy{};
  size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const Vector<double> f = load(forward + i);
    const Vector<double> b = load(backward + i);
    cross += f * b;
    forwardEnergy += f * f;
    backwardEnergy += b * b;
  }
  PredictionKernels::Correlation result{sumOf<double>(cross), sumOf<double>(forwardEnergy + backwardEnergy)};
  for (; i < count; ++i) {
    result.cross += forward[i] * backward[i];
    result.energy += forward[i] * forward[i] + backward[i] * backward[i];
  }
  return result;
}

void reflect(double* forward, double* backward, size_t count, double k) {
  const Vector<double> factor = {k, k};
  size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const Vector<double> f = load(forward + i);
    const Vector<double> b = load(backward + i);
    store(forward + i, f + factor * b);
    store(backward + i, b + factor * f);
  }
  for (; i < count; ++i) {
    const double f = forward[i];
    forward[i] = f + k * backward[i];
    backward[i] = backward[i] + k * f;
  }
}

void predict(const double* weights, double* next) {
  static_assert(PredictionKernels::kPredicted == 4);
  const double* const past = next - PredictionKernels::kOrder;
  Vector<double> low{}, high{};
  for (size_t i = 0; i < PredictionKernels::kOrder; ++i) {
    const Vector<double> sample = {past[i], past[i]};
    low += sample * load(weights + 4 * i);
    high += sample * load(weights + 4 * i + 2);
  }
  store(next, low);
  store(next + 2, high);
}

}  // namespace

template <typename Work>
const FilterKernels<Work>& filterKernels(InstructionSet set) noexcept {
  static constexpr FilterKernels<Work> kPortable{&filterOne<Work>, &filterTwo<Work>, &silenceNonFinite<Work>};
  if constexpr (std::is_same_v<Work, float>) {
    if (set == InstructionSet::AVX2 && avx2FilterKernels()) return *avx2FilterKernels();
  }
  return kPortable;
}

template const FilterKernels<float>& filterKernels<float>(InstructionSet) noexcept;
template const FilterKernels<double>& filterKernels<double>(InstructionSet) noexcept;

const PredictionKernels& predictionKernels(InstructionSet set) noexcept {
  static constexpr PredictionKernels kPortable{&correlate, &reflect, &predict};
  return set == InstructionSet::AVX2 && avx2PredictionKernels() ? *avx2PredictionKernels() : kPortable;
}

}  // namespace AudioConversion

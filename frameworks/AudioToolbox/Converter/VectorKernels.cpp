#include <AudioToolbox/Converter/PortableVector.h>
#include <AudioToolbox/Converter/VectorKernels.h>

#include <array>
#include <cmath>
#include <limits>
#include <type_traits>

namespace AudioConversion {
namespace {

template <typename Work>
using Vector = PortableVector<Work>;
template <typename Work>
inline constexpr size_t Lanes = kPortableLanes<Work>;

template <typename Work>
Work sumOf(Vector<Work> values) {
  if constexpr (Lanes<Work> == 4) {
    const Vector<Work> pairs = values + __builtin_shufflevector(values, values, 2, 3, 2, 3);
    return pairs[0] + pairs[1];
  } else {
    return values[0] + values[1];
  }
}

template <typename Work>
using Sums = std::array<Vector<Work>, FilterGroup<Work>::kMostFrames>;

template <typename Work>
void storeSums(const Sums<Work>& sums, Work* out) {
  for (size_t i = 0; i < sums.size(); ++i) out[i] = sumOf<Work>(sums[i]);
}

template <typename Work>
void filterOne(const FilterRun<Work>& run, const Work* in, Work* out) {
  const size_t reach = run.reach;
  for (const FilterGroup<Work>* group = run.groups; group != run.groups + run.count; ++group) {
    Sums<Work> sums{};
    for (size_t t = 0; t < reach; t += Lanes<Work>) {
      const Vector<Work> samples = loadVector<Work>(in + t);
      for (size_t i = 0; i < sums.size(); ++i)
        sums[i] += samples * loadVector<Work>(group->coefficients + i * reach + t);
    }
    storeSums<Work>(sums, out);
    in += group->step();
    out += group->frames;
  }
}

template <typename Work>
void filterTwo(const FilterRun<Work>& run, const Work* in0, const Work* in1, Work* out0, Work* out1) {
  const size_t reach = run.reach;
  for (const FilterGroup<Work>* group = run.groups; group != run.groups + run.count; ++group) {
    Sums<Work> sums0{}, sums1{};
    for (size_t t = 0; t < reach; t += Lanes<Work>) {
      const Vector<Work> samples0 = loadVector<Work>(in0 + t);
      const Vector<Work> samples1 = loadVector<Work>(in1 + t);
      for (size_t i = 0; i < sums0.size(); ++i) {
        const Vector<Work> coefficients = loadVector<Work>(group->coefficients + i * reach + t);
        sums0[i] += samples0 * coefficients;
        sums1[i] += samples1 * coefficients;
      }
    }
    storeSums<Work>(sums0, out0);
    storeSums<Work>(sums1, out1);
    in0 += group->step();
    in1 += group->step();
    out0 += group->frames;
    out1 += group->frames;
  }
}

template <typename Work>
void silenceNonFinite(Work* samples, size_t count) {
  constexpr Work Largest = std::numeric_limits<Work>::max();
  for (size_t i = 0; i < count; ++i) samples[i] = std::abs(samples[i]) <= Largest ? samples[i] : Work{0};
}

PredictionKernels::Correlation correlate(const double* forward, const double* backward, size_t count) {
  Vector<double> cross{}, forwardEnergy{}, backwardEnergy{};
  size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const Vector<double> f = loadVector<double>(forward + i);
    const Vector<double> b = loadVector<double>(backward + i);
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
    const Vector<double> f = loadVector<double>(forward + i);
    const Vector<double> b = loadVector<double>(backward + i);
    storeVector(forward + i, f + factor * b);
    storeVector(backward + i, b + factor * f);
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
    low += sample * loadVector<double>(weights + 4 * i);
    high += sample * loadVector<double>(weights + 4 * i + 2);
  }
  storeVector(next, low);
  storeVector(next + 2, high);
}

}  // namespace

template <typename Work>
const FilterKernels<Work>& filterKernels(InstructionSet set) noexcept {
  static constexpr FilterKernels<Work> Portable{&filterOne<Work>, &filterTwo<Work>, &silenceNonFinite<Work>};
  if constexpr (std::is_same_v<Work, float>) {
    if (set == InstructionSet::AVX2 && avx2FilterKernels()) return *avx2FilterKernels();
  }
  return Portable;
}

template const FilterKernels<float>& filterKernels<float>(InstructionSet) noexcept;
template const FilterKernels<double>& filterKernels<double>(InstructionSet) noexcept;

const PredictionKernels& predictionKernels(InstructionSet set) noexcept {
  static constexpr PredictionKernels Portable{&correlate, &reflect, &predict};
  return set == InstructionSet::AVX2 && avx2PredictionKernels() ? *avx2PredictionKernels() : Portable;
}

}  // namespace AudioConversion

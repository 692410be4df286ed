#pragma once

// The inner loops of rate conversion, in a portable form and one for AVX2 with FMA. Their results differ by rounding
// alone.

#include <AudioToolbox/Converter/InstructionSet.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace AudioConversion {

/// Output frames that are made together, so that a sample is fetched once for all of them and their sums end in one
/// vector. Their filters lie side by side on the input frames that they have in common.
template <typename Work>
struct FilterGroup {
  static constexpr unsigned kMostFrames = 4;

  const Work* coefficients = nullptr;  ///< a row for each of kMostFrames, 0 where a filter does not lie; aligned to 32
  uint32_t frames = kMostFrames;       ///< how many of the rows are in use
  std::array<uint32_t, kMostFrames + 1>
      starts{};  ///< the input frame that each filter, and the next group, begins with

  uint32_t step() const noexcept { return starts[frames]; }
};

template <typename Work>
struct FilterRun {
  const FilterGroup<Work>* groups;
  size_t count;
  size_t reach;  ///< input frames under a group's filters, a multiple of 8
};

template <typename Work>
struct FilterKernels {
  /// Make a run of groups of one or two channels. The input must be finite as far as the groups reach. There must be
  /// room for kMostFrames frames of the last group, however many it has.
  void (*filterOne)(const FilterRun<Work>& run, const Work* in, Work* out);
  void (*filterTwo)(const FilterRun<Work>& run, const Work* in0, const Work* in1, Work* out0, Work* out1);
  /// Puts 0 in the place of infinities and NaN.
  void (*silenceNonFinite)(Work* samples, size_t count);
};

/// The steps of linear prediction.
struct PredictionKernels {
  struct Correlation {
    double cross;   ///< sum of forward * backward
    double energy;  ///< sum of both squared
  };
  Correlation (*correlate)(const double* forward, const double* backward, size_t count);
  /// forward += k * backward and backward += k * forward, both from the values before.
  void (*reflect)(double* forward, double* backward, size_t count, double k);
  /// Writes the kPredicted samples that follow the kOrder samples before `next`. `weights` has, for each of those
  /// samples, oldest first, what it adds to each of the new ones.
  void (*predict)(const double* weights, double* next);

  static constexpr size_t kOrder = 16;
  static constexpr size_t kPredicted = 4;
};

/// Valid for the life of the program. Any thread.
template <typename Work>
const FilterKernels<Work>& filterKernels(InstructionSet set) noexcept;
const PredictionKernels& predictionKernels(InstructionSet set) noexcept;

/// Null on processors that are no x86-64. Call only what bestInstructionSet allows.
const FilterKernels<float>* avx2FilterKernels() noexcept;
const PredictionKernels* avx2PredictionKernels() noexcept;

}  // namespace AudioConversion

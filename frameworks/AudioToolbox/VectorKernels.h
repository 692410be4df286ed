#pragma once

// The inner loops of rate conversion, in a portable form and one for AVX2 with FMA. Their results differ by rounding
// alone; each gives the same result for the same frame wherever the frame lies in a run.

#include <AudioToolbox/InstructionSet.h>

#include <cstddef>

namespace AudioConversion {

/// A run of output frames through a polyphase filter. Row p of `rows` holds the `taps` coefficients for outputs that
/// lie p/phases of an input frame past an input frame. `taps` is a multiple of 8.
template <typename Work>
struct FilterRun {
  const Work* rows;
  size_t taps;
  size_t phases;
  size_t stepFrames;  ///< whole input frames from one output frame to the next...
  size_t stepPhases;  ///< ...and the rest, in phases
  size_t frame;       ///< the input frame under the first tap; advanced by a run
  size_t phase;       ///< advanced by a run
  size_t lastFrame;   ///< the run ends before `frame` passes this
};

template <typename Work>
struct FilterKernels {
  /// Produce up to `frames` frames of one or two channels; return how many.
  size_t (*filterOne)(FilterRun<Work>& run, const Work* in, Work* out, size_t frames);
  size_t (*filterTwo)(FilterRun<Work>& run, const Work* in0, const Work* in1, Work* out0, Work* out1, size_t frames);
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

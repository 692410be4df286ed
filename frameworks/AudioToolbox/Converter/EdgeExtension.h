#pragma once

// Carries a signal on beyond its first or last sample, so that a filter that reaches over the edge finds a plausible
// neighbourhood instead of silence. The samples next to the edge are modelled by linear prediction (Burg's method,
// whose models never grow), and the model goes on. Where there are too few samples for a model, the last one is held.

#include <AudioToolbox/Converter/VectorKernels.h>

#include <vector>

namespace AudioConversion {

/// One thread at a time; allocates only when it is made.
class EdgeExtension {
 public:
  /// Up to `longestExtension` samples will be asked for at a time.
  explicit EdgeExtension(size_t longestExtension, InstructionSet set = bestInstructionSet());

  /// The samples next to the edge that the model looks at; more are not read.
  static constexpr size_t kMostSamples = 256;

  /// Writes the `extension` samples that follow `samples[count - 1]` to `samples + count`. Samples must be finite; the
  /// result is, and stays within four times their peak.
  template <typename Work>
  void extendForward(Work* samples, size_t count, size_t extension);

  /// Writes the `extension` samples that come before `samples[0]` to `samples - extension`.
  template <typename Work>
  void extendBackward(Work* samples, size_t count, size_t extension);

 private:
  static constexpr size_t kHighestOrder = PredictionKernels::kOrder;
  static constexpr size_t kStep = PredictionKernels::kPredicted;

  size_t fitModel(size_t count);
  void predict(size_t count, size_t extension, double largest);
  void makeWeights(size_t order, double* weights) const;

  const PredictionKernels& _kernels;
  std::vector<double> _signal;   // room for a model's reach, the samples up to the edge, then the extension
  std::vector<double> _forward;  // prediction errors
  std::vector<double> _backward;
  double _model[kHighestOrder] = {};  // the weight of the newest sample first
};

}  // namespace AudioConversion

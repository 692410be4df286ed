#include <AudioToolbox/Converter/EdgeExtension.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace AudioConversion {
namespace {

// Fewer samples for each coefficient than this, and the model follows the noise.
constexpr size_t SamplesPerCoefficient = 3;

// A model of lower order cannot even follow a sine.
constexpr size_t LowestOrder = 2;

// What is left after a perfect fit is rounding; to fit that as well makes the model worse. In terms of energy.
constexpr double PerfectFit = 1e-15;

// A real signal's way on may well rise above what was seen of it, but not without end.
constexpr double HighestRise = 4;

}  // namespace

EdgeExtension::EdgeExtension(size_t longestExtension, InstructionSet set)
    : _kernels(predictionKernels(set)),
      _signal(kHighestOrder + kMostSamples + longestExtension + kStep),
      _forward(kMostSamples),
      _backward(kMostSamples) {}

template <typename Work>
void EdgeExtension::extendForward(Work* samples, size_t count, size_t extension) {
  const size_t used = std::min(count, kMostSamples);
  double* const signal = _signal.data() + kHighestOrder;
  std::copy_n(samples + (count - used), used, signal);
  predict(used, extension, static_cast<double>(std::numeric_limits<Work>::max()));
  for (size_t i = 0; i < extension; ++i) samples[count + i] = static_cast<Work>(signal[used + i]);
}

template <typename Work>
void EdgeExtension::extendBackward(Work* samples, size_t count, size_t extension) {
  const size_t used = std::min(count, kMostSamples);
  double* const signal = _signal.data() + kHighestOrder;
  for (size_t i = 0; i < used; ++i) signal[i] = static_cast<double>(samples[used - 1 - i]);
  predict(used, extension, static_cast<double>(std::numeric_limits<Work>::max()));
  for (size_t i = 0; i < extension; ++i) *(samples - 1 - i) = static_cast<Work>(signal[used + i]);
}

// Burg's method: order by order, the reflection coefficient that makes the forward and backward prediction errors
// smallest together. Returns the order reached; fewer coefficients than were possible are enough for a simple signal.
size_t EdgeExtension::fitModel(size_t count) {
  const size_t highest = std::min(kHighestOrder, count / SamplesPerCoefficient);
  std::copy_n(_signal.data() + kHighestOrder, count, _forward.begin());
  std::copy_n(_signal.data() + kHighestOrder, count, _backward.begin());

  double enough = 0;
  size_t order = 0;
  while (order < highest) {
    // Sample i's forward error meets the backward error of the sample before; the arrays are left in place and the
    // offset grows.
    double* const forward = _forward.data() + order + 1;
    double* const backward = _backward.data();
    const size_t pairs = count - order - 1;
    const auto [cross, energy] = _kernels.correlate(forward, backward, pairs);
    if (order == 0) enough = energy * PerfectFit;
    if (!(energy > enough) || !std::isfinite(energy)) break;

    const double reflection = std::clamp(2 * cross / energy, -1.0, 1.0);
    _model[order] = reflection;
    for (size_t i = 0, j = order - 1; i < order / 2; ++i, --j) {
      const double low = _model[i];
      const double high = _model[j];
      _model[i] = low - reflection * high;
      _model[j] = high - reflection * low;
    }
    if (order % 2 == 1) _model[order / 2] -= reflection * _model[order / 2];
    ++order;
    _kernels.reflect(forward, backward, pairs, -reflection);
  }
  return order;
}

void EdgeExtension::predict(size_t count, size_t extension, double largest) {
  double* const signal = _signal.data() + kHighestOrder;
  double* const following = signal + count;
  const size_t order = fitModel(count);
  if (order < LowestOrder) {
    std::fill_n(following, extension, count > 0 ? signal[count - 1] : 0.0);
    return;
  }
  double peak = 0;
  for (size_t i = 0; i < count; ++i) peak = std::max(peak, std::abs(signal[i]));
  const double limit = std::min(peak * HighestRise, largest);

  double weights[kHighestOrder * kStep];
  makeWeights(order, weights);
  for (size_t i = 0; i < extension; i += kStep) {
    _kernels.predict(weights, following + i);
    for (size_t j = i; j < i + kStep; ++j) following[j] = std::clamp(following[j], -limit, limit);
  }
}

// Predicting sample by sample would wait for each before the next. The model put into itself gives a few at once: what
// it says of the sample after next is its old view of that place, and the newest sample's part of it in terms of the
// older ones.
void EdgeExtension::makeWeights(size_t order, double* weights) const {
  double model[kHighestOrder] = {};
  std::copy_n(_model, order, model);
  double row[kHighestOrder];
  std::copy_n(model, kHighestOrder, row);
  for (size_t step = 0; step < kStep; ++step) {
    for (size_t i = 0; i < kHighestOrder; ++i) weights[(kHighestOrder - 1 - i) * kStep + step] = row[i];
    const double newest = row[0];
    for (size_t i = 0; i + 1 < kHighestOrder; ++i) row[i] = row[i + 1] + newest * model[i];
    row[kHighestOrder - 1] = newest * model[kHighestOrder - 1];
  }
}

template void EdgeExtension::extendForward<float>(float*, size_t, size_t);
template void EdgeExtension::extendForward<double>(double*, size_t, size_t);
template void EdgeExtension::extendBackward<float>(float*, size_t, size_t);
template void EdgeExtension::extendBackward<double>(double*, size_t, size_t);

}  // namespace AudioConversion

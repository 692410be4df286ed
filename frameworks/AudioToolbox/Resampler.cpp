#include <AudioToolbox/Resampler.h>

#include <algorithm>
#include <limits>

namespace AudioConversion {

template <typename Work>
Resampler<Work>::Resampler(const RateRatio& ratio, unsigned channels, InstructionSet set)
    : _ratio(ratio),
      _channels(channels),
      _bank(FilterBank<Work>::forRatio(ratio)),
      _kernels(filterKernels<Work>(set)),
      _extension(_bank->taps() / 2, set),
      _half(_bank->taps() / 2),
      // Enough to model the beginning, little enough not to make a live stream wait: it is less than 100 output frames
      // between the usual rates.
      _leadIn(_half + _half / 2),
      _modelled(std::min(_leadIn, EdgeExtension::kMostSamples)),
      // Moving the history down costs a copy of what is kept; a few blocks between moves make that cheap.
      _capacity(_bank->taps() + _leadIn + _half + 4 * kLongestAppend),
      _history(_capacity * channels),
      _row(_bank->hasEveryPhase() ? 0 : _bank->taps()) {
  reset();
}

template <typename Work>
void Resampler<Work>::reset() noexcept {
  _frame = 0;
  _phase = 0;
  _first = _half - 1;
  _end = _first;
  _begun = false;
  _finished = false;
  _owed = 0;
}

template <typename Work>
size_t Resampler<Work>::makeRoom(size_t frames) noexcept {
  const size_t limit = _capacity - _half;  // the rest is for the extension at the end
  if (_begun && limit - _end < frames) {
    // The end's extension must find the same samples however the input was cut.
    const size_t dropped = std::min(_frame, _end - std::min(_end, _modelled));
    for (unsigned c = 0; c < _channels; ++c) {
      Work* const samples = history(c);
      std::copy(samples + dropped, samples + _end, samples);
    }
    _frame -= dropped;
    _end -= dropped;
    _first -= std::min(_first, dropped);
  }
  return std::min(frames, limit - _end);
}

template <typename Work>
void Resampler<Work>::begin() {
  for (unsigned c = 0; c < _channels; ++c) {
    _extension.extendBackward(history(c) + _first, std::min(_end - _first, _modelled), _first);
  }
  _begun = true;
}

template <typename Work>
void Resampler<Work>::finish() {
  if (_finished) return;
  _finished = true;
  if (_end == _first) return;  // no input, no output

  if (!_begun) begin();
  _owed = framesOwed();
  for (unsigned c = 0; c < _channels; ++c) {
    const size_t modelled = std::min(_end - _first, _modelled);
    _extension.extendForward(history(c) + _end - modelled, modelled, _half);
  }
  _end += _half;
}

// Output frame n is owed while n + 1/2 output frames fit into the input. In units of half a phase, with the input
// frames counted from the one before the output's place, that is: remaining * 2 up >= 2 phase + down. Everything stays
// below 2^60.
template <typename Work>
uint64_t Resampler<Work>::framesOwed() const noexcept {
  const uint64_t unitsPerFrame = 2 * _ratio.up;
  const uint64_t halfStepFrames = _ratio.down / unitsPerFrame;
  const uint64_t halfStepUnits = _ratio.down % unitsPerFrame;
  uint64_t place = _frame + _half - 1;
  uint64_t phase = _phase;
  for (uint64_t owed = 0;; ++owed) {
    const uint64_t needed = place + halfStepFrames;
    const uint64_t unitsNeeded = 2 * phase + halfStepUnits;  // less than two frames
    const bool fits = needed + 2 <= _end || (needed + 1 == _end && unitsNeeded <= unitsPerFrame) ||
                      (needed == _end && unitsNeeded == 0);
    if (!fits) return owed;
    place += _ratio.down / _ratio.up;
    phase += _ratio.down % _ratio.up;
    if (phase >= _ratio.up) {
      phase -= _ratio.up;
      ++place;
    }
  }
}

template <typename Work>
size_t Resampler<Work>::produce(Work* const* out, size_t frames) {
  if (!_begun) {
    if (_end - _first < _leadIn) return 0;
    begin();
  }
  if (_finished) frames = static_cast<size_t>(std::min<uint64_t>(frames, _owed));
  if (_end < _bank->taps()) return 0;

  const size_t lastFrame = _end - _bank->taps();
  const size_t produced =
      _bank->hasEveryPhase() ? produceFromTable(out, frames, lastFrame) : produceInterpolating(out, frames, lastFrame);
  if (_finished) _owed -= produced;
  return produced;
}

template <typename Work>
size_t Resampler<Work>::produceFromTable(Work* const* out, size_t frames, size_t lastFrame) {
  const FilterRun<Work> start{.rows = _bank->rows(),
                              .taps = _bank->taps(),
                              .phases = static_cast<size_t>(_ratio.up),
                              .stepFrames = static_cast<size_t>(_ratio.down / _ratio.up),
                              .stepPhases = static_cast<size_t>(_ratio.down % _ratio.up),
                              .frame = _frame,
                              .phase = static_cast<size_t>(_phase),
                              .lastFrame = lastFrame};
  return run(start, out, 0, frames);
}

template <typename Work>
size_t Resampler<Work>::produceInterpolating(Work* const* out, size_t frames, size_t lastFrame) {
  size_t produced = 0;
  for (; produced < frames && _frame <= lastFrame; ++produced) {
    _bank->interpolate(static_cast<double>(_phase) / static_cast<double>(_ratio.up), _row.data());
    uint64_t phase = _phase + _ratio.down % _ratio.up;
    size_t frame = _frame + static_cast<size_t>(_ratio.down / _ratio.up);
    if (phase >= _ratio.up) {
      phase -= _ratio.up;
      ++frame;
    }
    // A bank of one row, for one frame.
    const FilterRun<Work> single{.rows = _row.data(),
                                 .taps = _bank->taps(),
                                 .phases = 1,
                                 .stepFrames = 1,
                                 .stepPhases = 0,
                                 .frame = _frame,
                                 .phase = 0,
                                 .lastFrame = _frame};
    run(single, out, produced, 1);
    _frame = frame;
    _phase = phase;
  }
  return produced;
}

// Two channels at a time share the loads of the coefficients.
template <typename Work>
size_t Resampler<Work>::run(FilterRun<Work> start, Work* const* out, size_t offset, size_t frames) {
  size_t produced = 0;
  FilterRun<Work> end = start;
  for (unsigned c = 0; c < _channels; c += 2) {
    end = start;
    produced = c + 1 < _channels
                   ? _kernels.filterTwo(end, history(c), history(c + 1), out[c] + offset, out[c + 1] + offset, frames)
                   : _kernels.filterOne(end, history(c), out[c] + offset, frames);
  }
  _frame = end.frame;
  _phase = end.phase;
  return produced;
}

template <typename Work>
size_t Resampler<Work>::inputWanted(size_t frames) const noexcept {
  const double reach = static_cast<double>(frames) * _ratio.inputFramesPerOutputFrame();
  const double wanted =
      static_cast<double>(_frame) + reach + static_cast<double>(_bank->taps()) - static_cast<double>(_end);
  const double leadIn = _begun ? 0 : static_cast<double>(_first + _leadIn) - static_cast<double>(_end);
  const double most = std::numeric_limits<uint32_t>::max();
  return static_cast<size_t>(std::clamp(std::max(wanted, leadIn), 1.0, most));
}

template class Resampler<float>;
template class Resampler<double>;

}  // namespace AudioConversion

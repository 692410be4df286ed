#include <AudioToolbox/Converter/Resampler.h>

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
      _margin(_bank->reach() - _bank->taps()),
      // Moving the history down costs a copy of what is kept; a few blocks between moves make that cheap.
      _capacity(_bank->reach() + _leadIn + 4 * kLongestAppend + _half + _margin),
      _history(_capacity * channels),
      _groups(_bank->cycle()),
      _interpolatedCoefficients(_groups.empty() ? Group::kMostFrames * _bank->reach() / 8 : 0) {
  reset();
}

template <typename Work>
void Resampler<Work>::reset() noexcept {
  if (_bank->cycle().empty()) interpolateGroup(0);
  _group = 0;
  _start = 0;
  _taken = 0;
  _first = _half - 1;
  _end = _first;
  _begun = false;
  _finished = false;
  _owed = 0;
}

template <typename Work>
size_t Resampler<Work>::makeRoom(size_t frames) noexcept {
  const size_t limit = _capacity - _half - _margin;  // the rest is for the extension at the end, and to reach over
  if (_begun && limit - _end < frames) {
    // The end's extension must find the same samples however the input was cut.
    const size_t dropped = std::min(_start, _end - std::min(_end, _modelled));
    for (unsigned c = 0; c < _channels; ++c) {
      Work* const samples = history(c);
      std::copy(samples + dropped, samples + _end, samples);
    }
    _start -= dropped;
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
  OutputPlace place = placeOf(_taken);
  for (uint64_t owed = 0;; ++owed) {
    const uint64_t needed = place.frame + _half - 1 + halfStepFrames;
    const uint64_t unitsNeeded = 2 * place.phase + halfStepUnits;  // less than two frames
    const bool fits = needed + 2 <= _end || (needed + 1 == _end && unitsNeeded <= unitsPerFrame) ||
                      (needed == _end && unitsNeeded == 0);
    if (!fits) return owed;
    place = place.next(_ratio);
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
  size_t produced = produceTwoCycles(out, frames, lastFrame);
  if (produced == 0) produced = produceGroups(out, frames, lastFrame);
  if (_finished) _owed -= produced;
  return produced;
}

template <typename Work>
size_t Resampler<Work>::produceGroups(Work* const* out, size_t frames, size_t lastFrame) {
  size_t produced = 0;
  while (produced < frames) {
    size_t count = produceWholeGroups(out, produced, frames - produced, lastFrame);
    if (count == 0) count = producePartOfGroup(out, produced, frames - produced, lastFrame);
    if (count == 0) break;
    produced += count;
  }
  return produced;
}

// How much of a cycle's input lies before one of its groups.
template <typename Work>
size_t Resampler<Work>::inputBefore(size_t group) const noexcept {
  return static_cast<size_t>(group * Group::kMostFrames * _ratio.down / _ratio.up);
}

// The coefficients of a cycle are often more than the nearest cache holds, and fetching them takes longer than all the
// rest. One channel alone shares them between two cycles, as two channels do within one. The second cycle lacks its
// last group: where that is the cycle's short one, the first cycle's would write over the second's beginning.
template <typename Work>
size_t Resampler<Work>::produceTwoCycles(Work* const* out, size_t frames, size_t lastFrame) {
  if (_channels != 1 || _taken > 0 || _bank->cycle().empty()) return 0;
  const size_t last = (_group == 0 ? _groups.size() : _group) - 1;
  const size_t cycleFrames = (_groups.size() - 1) * Group::kMostFrames + _groups.back().frames;
  const size_t cycleInput = inputBefore(_groups.size() - 1) + _groups.back().step();
  if (frames < 2 * cycleFrames || _start + 2 * cycleInput > lastFrame) return 0;

  const auto makeTwice = [&](size_t begin, size_t end, const Work* in, Work* to) {
    _kernels.filterTwo({&_groups[begin], end - begin, _bank->reach()}, in, in + cycleInput, to, to + cycleFrames);
  };
  const Work* const in = history(0) + _start;
  const size_t beforeWrap = _group == 0 ? last : _groups.size();
  makeTwice(_group, beforeWrap, in, out[0]);
  if (_group > 0) {
    const size_t inputOfFirst = cycleInput - inputBefore(_group);
    makeTwice(0, last, in + inputOfFirst, out[0] + cycleFrames - _group * Group::kMostFrames);
  }
  Work values[Group::kMostFrames];
  const size_t lastFrames = _groups[last].frames;
  const size_t lastInput = cycleInput - _groups[last].step();
  _kernels.filterOne({&_groups[last], 1, _bank->reach()}, in + lastInput, values);
  std::copy_n(values, lastFrames, out[0] + cycleFrames - lastFrames);

  _group = last;
  _start += cycleInput + lastInput;
  return 2 * cycleFrames - lastFrames;
}

template <typename Work>
size_t Resampler<Work>::produceWholeGroups(Work* const* out, size_t offset, size_t frames, size_t lastFrame) {
  if (_taken > 0) return 0;
  size_t group = _group;
  size_t start = _start;
  size_t count = 0;
  for (; group < _groups.size() && frames - count >= Group::kMostFrames; ++group) {
    const Group& next = _groups[group];
    if (start + next.starts[next.frames - 1] > lastFrame) break;
    start += next.step();
    count += next.frames;
  }
  if (count == 0) return 0;
  makeGroups(group - _group, out, offset);
  goOnWith(group, start);
  return count;
}

template <typename Work>
size_t Resampler<Work>::producePartOfGroup(Work* const* out, size_t offset, size_t frames, size_t lastFrame) {
  const Group& group = _groups[_group];
  size_t ready = group.frames;
  while (ready > _taken && _start + group.starts[ready - 1] > lastFrame) --ready;
  const size_t count = std::min(frames, ready - _taken);
  if (count == 0) return 0;

  Work values[kMostChannels][Group::kMostFrames];
  Work* planes[kMostChannels];
  for (unsigned c = 0; c < _channels; ++c) planes[c] = values[c];
  makeGroups(1, planes, 0);
  for (unsigned c = 0; c < _channels; ++c) std::copy_n(values[c] + _taken, count, out[c] + offset);
  _taken += count;
  if (_taken == group.frames) goOnWith(_group + 1, _start + group.step());
  return count;
}

// Two channels at a time share the loads of the coefficients.
template <typename Work>
void Resampler<Work>::makeGroups(size_t groups, Work* const* out, size_t offset) {
  const FilterRun<Work> run{&_groups[_group], groups, _bank->reach()};
  for (unsigned c = 0; c < _channels; c += 2) {
    const Work* const in = history(c) + _start;
    if (c + 1 < _channels) {
      _kernels.filterTwo(run, in, in + _capacity, out[c] + offset, out[c + 1] + offset);
    } else {
      _kernels.filterOne(run, in, out[c] + offset);
    }
  }
}

template <typename Work>
void Resampler<Work>::goOnWith(size_t group, size_t start) noexcept {
  if (group == _groups.size()) {
    group = 0;
    if (_bank->cycle().empty()) interpolateGroup(placeOf(Group::kMostFrames).phase);
  }
  _group = group;
  _start = start;
  _taken = 0;
}

template <typename Work>
void Resampler<Work>::interpolateGroup(uint64_t phase) noexcept {
  _interpolated = _bank->interpolateGroup(phase, _interpolatedCoefficients.data());
  _interpolatedPhase = phase;
  _groups = {&_interpolated, 1};
}

// The one after the group has a place, too.
template <typename Work>
OutputPlace Resampler<Work>::placeOf(size_t indexInGroup) const noexcept {
  const uint64_t firstOutput = _group * Group::kMostFrames;
  OutputPlace place{_start, _bank->cycle().empty() ? _interpolatedPhase : firstOutput * _ratio.down % _ratio.up};
  for (size_t i = 0; i < indexInGroup; ++i) place = place.next(_ratio);
  return place;
}

template <typename Work>
size_t Resampler<Work>::inputWanted(size_t frames) const noexcept {
  const double reach = static_cast<double>(frames) * _ratio.inputFramesPerOutputFrame();
  const double wanted = static_cast<double>(_start + _groups[_group].starts[_taken]) + reach +
                        static_cast<double>(_bank->taps()) - static_cast<double>(_end);
  const double leadIn = _begun ? 0 : static_cast<double>(_first + _leadIn) - static_cast<double>(_end);
  const double most = std::numeric_limits<uint32_t>::max();
  return static_cast<size_t>(std::clamp(std::max(wanted, leadIn), 1.0, most));
}

template class Resampler<float>;
template class Resampler<double>;

}  // namespace AudioConversion

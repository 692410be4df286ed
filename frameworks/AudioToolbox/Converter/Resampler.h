#pragma once

// Sample-rate conversion of planar working values.
//
// Output frame n is the signal at the input time n * inputRate / outputRate: the filter's delay is made up for by
// holding back what cannot be computed yet. A stream's first and last frames are met by EdgeExtension.

#include <AudioToolbox/Converter/EdgeExtension.h>
#include <AudioToolbox/Converter/FilterBank.h>

#include <span>
#include <vector>

namespace AudioConversion {

/// Input is written to `tail` and then appended; output is produced as far as the input reaches. What comes out does
/// not depend on how the input was cut. `Work` is float or double. One thread at a time; allocates only when it is
/// made.
template <typename Work>
class Resampler {
 public:
  static constexpr unsigned kMostChannels = 8;

  Resampler(const RateRatio& ratio, unsigned channels, InstructionSet set = bestInstructionSet());
  Resampler(const Resampler&) = delete;
  Resampler& operator=(const Resampler&) = delete;

  /// Makes room for `frames` (at most kLongestAppend) at the tail of every channel. Everything that can be
  /// produced must have been, or room may be short: returns how many frames fit.
  size_t makeRoom(size_t frames) noexcept;
  static constexpr size_t kLongestAppend = 1024;

  /// Where the next input frames of a channel go. Values must be finite.
  Work* tail(unsigned channel) noexcept { return history(channel) + _end; }
  void append(size_t frames) noexcept { _end += frames; }

  /// The input has ended: what is still owed can be produced. In all, the output then has as many frames as the input
  /// times the ratio of the rates, rounded to nearest, halves up.
  void finish();

  /// Produces up to `frames` frames, one plane for each channel; returns how many. Only none mean that the
  /// input is used up.
  size_t produce(Work* const* out, size_t frames);

  /// How many more input frames are needed to produce `frames` frames; at least 1.
  size_t inputWanted(size_t frames) const noexcept;

  /// Begins an unrelated stream.
  void reset() noexcept;

 private:
  using Group = typename FilterBank<Work>::Group;

  Work* history(unsigned channel) noexcept { return _history.data() + channel * _capacity; }
  void begin();
  uint64_t framesOwed() const noexcept;
  OutputPlace placeOf(size_t indexInGroup) const noexcept;
  void interpolateGroup(uint64_t phase) noexcept;
  void goOnWith(size_t group, size_t start) noexcept;
  size_t inputBefore(size_t group) const noexcept;
  size_t produceTwoCycles(Work* const* out, size_t frames, size_t lastFrame);
  size_t produceGroups(Work* const* out, size_t frames, size_t lastFrame);
  size_t produceWholeGroups(Work* const* out, size_t offset, size_t frames, size_t lastFrame);
  size_t producePartOfGroup(Work* const* out, size_t offset, size_t frames, size_t lastFrame);
  void makeGroups(size_t groups, Work* const* out, size_t offset);

  RateRatio _ratio;
  unsigned _channels;
  std::shared_ptr<const FilterBank<Work>> _bank;
  const FilterKernels<Work>& _kernels;
  EdgeExtension _extension;
  size_t _half;      // half the filter's taps
  size_t _leadIn;    // input frames that must be there before the first output
  size_t _modelled;  // input frames at an edge that its extension is made from
  size_t _margin;    // frames after the newest that a group may reach over: its filters are 0 there
  size_t _capacity;  // frames of each channel's history
  std::vector<Work> _history;

  // Outputs are made in groups. Which ones form a group does not depend on how a stream is cut, as it has a part in how
  // their sums are rounded.
  std::span<const Group> _groups;  // the bank's cycle, or the one group that is interpolated
  size_t _group = 0;               // the one that the next output belongs to
  size_t _start = 0;               // where in the history it begins
  size_t _taken = 0;               // outputs of it that have been produced

  Group _interpolated;
  uint64_t _interpolatedPhase = 0;
  std::vector<typename FilterBank<Work>::Eight> _interpolatedCoefficients;

  size_t _first = 0;  // the oldest input frame: before it, after begin(), lies the extension
  size_t _end = 0;    // after the newest input frame
  bool _begun = false;
  bool _finished = false;
  uint64_t _owed = 0;  // output frames still to be produced, once finished
};

}  // namespace AudioConversion

#pragma once

// The low-pass filter of a rate conversion, tabulated phase by phase.
//
// Up to 20/22.05 of the lower of the two Nyquist frequencies it is flat within 0.001 dB, from 23/22.05 on it attenuates
// by more than 120 dB; what lies between the lower Nyquist frequency and that edge folds into the transition band.

#include <AudioToolbox/Converter/VectorKernels.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace AudioConversion {

/// The exact ratio of two sample rates: `up` output frames last as long as `down` input frames. Without a common
/// factor.
struct RateRatio {
  uint64_t up = 1;
  uint64_t down = 1;

  /// Both rates from 8 to 192 kHz, whole or not.
  static RateRatio between(double inputRate, double outputRate) noexcept;
  bool operator==(const RateRatio&) const = default;
  double inputFramesPerOutputFrame() const noexcept { return static_cast<double>(down) / static_cast<double>(up); }
};

/// Where an output lies: its filter covers the input frames from `frame` on, shifted by phase/ratio.up of a frame.
struct OutputPlace {
  size_t frame;
  uint64_t phase;

  OutputPlace next(const RateRatio& ratio) const noexcept;
};

/// Immutable once made, shared by all converters of the same ratio, from any thread.
template <typename Work>
class FilterBank {
 public:
  using Group = FilterGroup<Work>;

  /// Coefficients, aligned as the kernels want them.
  struct alignas(32) Eight {
    Work coefficient[8];
  };

  /// From the process-wide cache, made at first use: some milliseconds. Throws std::bad_alloc.
  static std::shared_ptr<const FilterBank> forRatio(const RateRatio& ratio);

  explicit FilterBank(const RateRatio& ratio);
  FilterBank(const FilterBank&) = delete;
  FilterBank& operator=(const FilterBank&) = delete;

  /// Input frames under a filter, an even number. Half of them lie at or before the output's place in time.
  size_t taps() const noexcept { return _taps; }
  /// Input frames under the filters of a group; a multiple of 8.
  size_t reach() const noexcept { return _reach; }

  /// The groups of output frames, which begin again after a cycle of a whole number of input frames; only the last may
  /// have less than Group::kMostFrames. Empty if there would be too many: then each is interpolated.
  std::span<const Group> cycle() const noexcept { return _groups; }

  /// Makes the group whose first output lies at `phase`. Its coefficients go to `memory`, which has room for
  /// Group::kMostFrames rows of reach().
  Group interpolateGroup(uint64_t phase, Eight* memory) const noexcept;

 private:
  void makeCycle(uint64_t outputs, double width);
  void makeRowsToInterpolate(double width);
  void interpolate(double place, Work* row) const noexcept;
  template <typename MakeRow>
  Group makeGroup(uint64_t phase, uint32_t frames, Work* coefficients, const MakeRow& makeRowAt) const;

  RateRatio _ratio;
  size_t _taps = 0;
  size_t _reach = 0;
  std::vector<Eight> _coefficients;  // of all groups, or the rows to interpolate between
  std::vector<Group> _groups;
  size_t _interpolatedPhases = 0;  // rows in an input frame
};

}  // namespace AudioConversion

#pragma once

// The low-pass filter of a rate conversion, tabulated phase by phase.
//
// A windowed sinc. Up to 20/22.05 of the lower of the two Nyquist frequencies it is flat within 0.005 dB, from 23/22.05
// on it attenuates by more than 120 dB; what lies between the lower Nyquist frequency and that edge folds into the
// transition band.

#include <cstdint>
#include <memory>
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

/// Immutable once made, shared by all converters of the same ratio, from any thread.
template <typename Work>
class FilterBank {
 public:
  /// From the process-wide cache, made at first use: some milliseconds. Throws std::bad_alloc.
  static std::shared_ptr<const FilterBank> forRatio(const RateRatio& ratio);

  explicit FilterBank(const RateRatio& ratio);

  /// Input frames under the filter, a multiple of 8. Half of them lie at or before the output's place in time.
  size_t taps() const noexcept { return _taps; }

  /// Whether there is a row for every place that an output can have between two input frames. If not, rows are
  /// interpolated.
  bool hasEveryPhase() const noexcept { return _hasEveryPhase; }

  /// With every phase: row p belongs to the place p/ratio.up.
  const Work* rows() const noexcept { return _rows.front().coefficient; }

  /// The row for any place in [0, 1), written to `row`.
  void interpolate(double place, Work* row) const noexcept;

 private:
  // Rows are whole numbers of these, so that no vector of coefficients straddles two cache lines.
  struct alignas(32) Eight {
    Work coefficient[8];
  };
  void allocateRows(size_t count) { _rows.resize(count * (_taps / 8)); }
  Work* row(size_t index) noexcept { return _rows[index * (_taps / 8)].coefficient; }

  size_t _taps = 0;
  size_t _phases = 0;  // in an input frame
  bool _hasEveryPhase = false;
  std::vector<Eight> _rows;
};

}  // namespace AudioConversion

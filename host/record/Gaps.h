#pragma once

// What is missing in one medium of a recording: how much altogether, and where the first gaps are.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

namespace brvhost {

struct Gap {
  double position = 0;       ///< where it begins, in seconds of the recording, earlier gaps included
  std::int64_t missing = 0;  ///< frames, of picture or of sound
};

/// Not locked; allocates nothing.
class Gaps {
 public:
  /// Counts nothing where nothing is missing. Sums of absurd gaps end at a quarter of what the integer holds.
  void add(double position, std::int64_t missing) {
    if (missing <= 0) return;
    if (_count < _first.size()) _first[_count] = {position, missing};
    ++_count;
    constexpr std::int64_t Most = std::numeric_limits<std::int64_t>::max() / 4;
    _missing = std::min(_missing + std::min(missing, Most), Most);
    _largest = std::max(_largest, missing);
  }

  std::int64_t missing() const { return _missing; }
  /// In one place.
  std::int64_t largest() const { return _largest; }
  std::size_t count() const { return _count; }
  /// The first few, in their order.
  std::span<const Gap> first() const { return std::span(_first).first(std::min(_count, _first.size())); }

 private:
  std::array<Gap, 5> _first;
  std::size_t _count = 0;
  std::int64_t _missing = 0;
  std::int64_t _largest = 0;
};

}  // namespace brvhost

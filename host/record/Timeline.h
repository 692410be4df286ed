#pragma once

// Values over time in bounded memory: so many buckets, each with the lowest and the highest value of its stretch of
// time, which doubles whenever the buckets are full. Not locked.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace brvhost {

class Timeline {
 public:
  struct Bucket {
    double seconds = 0;  ///< of its first value
    double low = 0, high = 0;
  };
  static constexpr std::size_t MostBuckets = 600;

  /// `seconds` do not go back.
  void add(double seconds, double value) {
    if (_buckets.empty() || seconds - _buckets.back().seconds >= _length) {
      if (_buckets.size() >= MostBuckets) halve();
      _buckets.push_back({seconds, value, value});
    }
    Bucket& last = _buckets.back();
    last.low = std::min(last.low, value);
    last.high = std::max(last.high, value);
  }

  const std::vector<Bucket>& buckets() const { return _buckets; }

 private:
  void halve() {
    for (std::size_t i = 0; i + 1 < _buckets.size(); i += 2) {
      const Bucket &first = _buckets[i], &second = _buckets[i + 1];
      _buckets[i / 2] = {first.seconds, std::min(first.low, second.low), std::max(first.high, second.high)};
    }
    _buckets.resize(_buckets.size() / 2);
    _length = std::max(2 * _length, (_buckets.back().seconds - _buckets.front().seconds) / MostBuckets);
  }

  std::vector<Bucket> _buckets;
  double _length = 0.01;
};

}  // namespace brvhost

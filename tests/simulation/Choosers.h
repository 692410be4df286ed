#pragma once

// Ways through what is open in a simulated run.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/SimulationScheduler.h"

namespace test {

/// Walks every order, depth first: each run repeats the choices of the one before up to the last that has an
/// alternative left.
class EveryOrder final : public Chooser {
 public:
  /// At most `interruptions` times in a run, a line is interrupted where it is about to lock a mutex. Of `parts`
  /// processes, of which there may be as many as a run's first choice has alternatives, each walks its own part.
  explicit EveryOrder(int interruptions, std::size_t part = 0, std::size_t parts = 1)
      : _mostInterruptions(interruptions), _part(part), _parts(parts) {}

  /// Begins with the run of a description.
  explicit EveryOrder(const std::string& description) : EveryOrder(std::atoi(description.c_str())) {
    std::istringstream choices(description.substr(description.find(':') + 1));
    for (std::size_t choice; choices >> choice; choices.ignore()) _path.push_back({choice, 0});
  }

  std::size_t choose(std::size_t count) override {
    if (_depth == _path.size()) _path.push_back({_path.empty() ? _part : 0, count});
    Choice& choice = _path[_depth++];
    if (choice.count == 0) choice.count = count;
    if (choice.count != count || choice.chosen >= count) {
      std::fprintf(stderr, "the same choices led elsewhere: choice %zu was one of %zu, and is one of %zu\n", _depth,
                   choice.count, count);
      std::abort();
    }
    return choice.chosen;
  }

  bool interrupts(SimulationScheduler& scheduler) override {
    if (_interruptions == _mostInterruptions || !scheduler.othersCanRun() || choose(2) == 0) return false;
    ++_interruptions;
    return true;
  }

  /// Goes to the next run; false when there is none left.
  bool next() {
    _depth = 0;
    _interruptions = 0;
    while (!_path.empty()) {
      Choice& last = _path.back();
      last.chosen += _path.size() == 1 ? _parts : 1;
      if (last.chosen < last.count) return true;
      _path.pop_back();
    }
    return false;
  }

  /// The choices of the run so far.
  std::string description() const {
    std::string text = std::to_string(_mostInterruptions);
    for (std::size_t i = 0; i < _depth; ++i) text += (i == 0 ? ':' : '.') + std::to_string(_path[i].chosen);
    return text;
  }

 private:
  struct Choice {
    std::size_t chosen;
    std::size_t count;  ///< 0 while not known
  };

  const int _mostInterruptions;
  const std::size_t _part;
  const std::size_t _parts;
  int _interruptions = 0;
  std::vector<Choice> _path;
  std::size_t _depth = 0;
};

/// Random choices that follow from a seed.
class RandomOrder final : public Chooser {
 public:
  explicit RandomOrder(std::uint64_t seed) : _state(seed) {}

  std::size_t choose(std::size_t count) override { return next() % count; }
  bool interrupts(SimulationScheduler& scheduler) override { return next() % 32 == 0 && scheduler.othersCanRun(); }

 private:
  // SplitMix64.
  std::uint64_t next() {
    std::uint64_t bits = _state += 0x9E3779B97F4A7C15u;
    bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9u;
    bits = (bits ^ bits >> 27) * 0x94D049BB133111EBu;
    return bits ^ bits >> 31;
  }

  std::uint64_t _state;
};

}  // namespace test

#pragma once

// Ways through what is open in a simulated run.

#include <cstdint>
#include <string>
#include <vector>

#include "support/SimulationScheduler.h"

namespace test {

/// Walks every order, depth first: each run repeats the choices of the one before up to the last that has an alternative
/// left.
class EveryOrder final : public Chooser {
 public:
  /// At most `interruptions` times in a run, a line is interrupted where it is about to lock a mutex. Of `parts`
  /// processes, of which there may be as many as a run's first choice has alternatives, each walks its own part.
  explicit EveryOrder(int interruptions = 0, std::size_t part = 0, std::size_t parts = 1);

  /// The one run of a description.
  explicit EveryOrder(const std::string& description);

  std::size_t choose(std::size_t count) override;
  bool interrupts() override;

  /// Goes to the next run; false when there is none left.
  bool next();

  /// The choices of the run so far.
  std::string description() const;

 private:
  struct Choice {
    std::size_t chosen;
    std::size_t count;  ///< 0 while not known
  };

  const int _mostInterruptions;
  const std::size_t _part;
  const std::size_t _parts;
  int _interruptions;
  std::vector<Choice> _path;
  std::size_t _depth = 0;
};

/// Random choices that follow from a seed.
class RandomOrder final : public Chooser {
 public:
  explicit RandomOrder(std::uint64_t seed) : _state(seed) {}

  std::size_t choose(std::size_t count) override { return next() % count; }
  bool interrupts() override { return next() % 32 == 0; }

 private:
  std::uint64_t next();

  std::uint64_t _state;
};

}  // namespace test

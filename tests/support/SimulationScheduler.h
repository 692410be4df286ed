#pragma once

// A scheduler for tests: one thread, virtual time. Lanes, and the lines of execution that a test starts, each have a
// stack of their own. Whenever one of them waits, sleeps or yields, a chooser says which goes on, so that a run is a
// matter of its answers alone, and the same answers bring the same run again.
//
// The thread that makes the scheduler is its main thread, the one on which main-queue blocks run. Linked together with
// SimulatedThreads.cpp, mutexes, condition variables and thread identities belong to the simulated lines as well.

#include <runtime/Scheduler.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Fiber.h"

namespace test {

class SimulationScheduler;

/// Settles what is open in a simulated run.
class Chooser {
 public:
  /// One of `count` alternatives, at least 2. Lines come in the order in which they are due.
  virtual std::size_t choose(std::size_t count) = 0;

  /// Whether the line that is about to lock a mutex is interrupted by another, of which there must be one that can run.
  virtual bool interrupts(SimulationScheduler& scheduler) { return static_cast<void>(scheduler), false; }

 protected:
  ~Chooser() = default;
};

enum class Time {
  InOrder,  ///< what is due first comes first; a choice is open between lines that are due by now
  Free,     ///< anything may be late by any time, as on a busy machine: every line that is ever due can be next
};

class SimulationScheduler final : public runtime::Scheduler {
 public:
  /// In force as long as it exists; to be made while no lane exists. Without a chooser, what is due first comes first.
  explicit SimulationScheduler(Chooser* chooser = nullptr, Time time = Time::InOrder);
  ~SimulationScheduler() override;

  runtime::Nanoseconds now() override { return _now; }
  void sleepUntil(runtime::Nanoseconds time) override;
  bool wait(runtime::Event& event, runtime::Nanoseconds deadline) override;
  std::unique_ptr<runtime::Lane> makeLane(std::string_view name, runtime::LaneClient& client) override;
  bool isMainThread() override { return _current == _main; }

  /// What zThread's sleep is replaced with.
  static void sleepFor(unsigned microseconds);

  void setTime(Time time) { _time = time; }

  /// Lets time pass without anyone running, as when the machine is busy.
  void stall(runtime::Nanoseconds span) { _now += span; }

  /// Starts a line that runs `body`: what another thread would do.
  void start(std::string_view name, std::function<void()> body);

  /// Lets others go first, if the chooser says so.
  void yield();

  /// Whether another line than the calling one can run.
  bool othersCanRun();

  /// Suspends the calling line until the condition has held, once; false when the deadline passed before.
  bool waitUntil(bool (*holds)(void*), void* subject, runtime::Nanoseconds deadline = runtime::Never);

  /// True while the main thread, or the main queue's own, is in no block.
  bool isMainThreadIdle() const;

  /// Identity of the running line; null for the main thread's.
  const void* runningLine() const { return _current == _main ? nullptr : _current; }

  /// Which lines ran their items in which order, as one number; `note` adds to it.
  std::uint64_t trace() const { return _trace; }
  void note(std::uint64_t what) { _trace = (_trace ^ what) * 0x9E3779B97F4A7C15u ^ _trace >> 29; }

  /// The scheduler in force; null when there is none.
  static SimulationScheduler* active();

  /// Whether the chooser may interrupt lines; it may not at first. Returns what was in force.
  bool setInterruptible(bool isInterruptible) { return std::exchange(_isInterruptible, isInterruptible); }

  /// For SimulatedThreads: the running line is about to lock a mutex.
  void beforeLock();
  bool isChoosing() const { return _isChoosing; }

 private:
  struct Line;
  class SimulatedLane;

  static void work();
  void runHere(Line& line);
  void suspend(Line& self, Line& next);
  void collectCandidates(const Line* excluded);
  Line& pick(const Line* excluded = nullptr);
  runtime::Nanoseconds dueTime(Line& line);
  [[noreturn]] void reportStandstill() const;
  void erase(const Line& line);

  Chooser* const _chooser;
  Time _time;
  runtime::Nanoseconds _now = 1;
  std::uint64_t _trace = 0;
  std::uint64_t _locks = 0;  ///< that could have been interrupted so far
  bool _isChoosing = false;
  bool _isInterruptible = false;

  std::vector<std::unique_ptr<Line>> _lines;
  Line* _main;
  Line* _current;
  Fiber _mainFiber;

  struct Candidate {
    runtime::Nanoseconds due;
    bool isLane;
    Line* line;
  };
  std::vector<Candidate> _candidates;
};

}  // namespace test

#include "support/SimulationScheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

namespace test {

using runtime::Nanoseconds;
using runtime::Never;

namespace {

constexpr Nanoseconds AtOnce = std::numeric_limits<Nanoseconds>::min();

SimulationScheduler* inForce = nullptr;

/// Fibers without work, from all schedulers so far: making one takes longer than a whole run. Never destroyed, like
/// what waits on them.
std::vector<Fiber*>& idleFibers() {
  static auto* const fibers = new std::vector<Fiber*>;
  return *fibers;
}

}  // namespace

/// A lane, the main thread, or a line that the test started. A lane is without a fiber between its items.
struct SimulationScheduler::Line {
  std::string name;
  runtime::LaneClient* client = nullptr;
  std::function<void()> body;

  Fiber* fiber = nullptr;
  const runtime::Activity* activity = nullptr;
  bool isEnding = false;  ///< A lane that begins no further item.
  bool isForgotten = false;

  // What it waits for while suspended.
  bool (*holds)(void*) = nullptr;
  void* subject = nullptr;
  Nanoseconds deadline = Never;
  bool held = false;
};

class SimulationScheduler::SimulatedLane final : public runtime::Lane {
 public:
  SimulatedLane(SimulationScheduler& scheduler, Line& line) : _scheduler(scheduler), _line(line) {}

  ~SimulatedLane() override {
    _line.isEnding = true;
    if (isCurrent()) {
      _line.isForgotten = true;
      return;
    }
    const auto isBetweenItems = [](void* line) { return static_cast<Line*>(line)->fiber == nullptr; };
    if (_line.fiber) _scheduler.waitUntil(isBetweenItems, &_line);
    _scheduler.erase(_line);
  }

  void wake() override {}
  bool isCurrent() const { return _scheduler._current == &_line; }

 private:
  SimulationScheduler& _scheduler;
  Line& _line;
};

SimulationScheduler::SimulationScheduler(Chooser* chooser, Time time) : _chooser(chooser), _time(time) {
  _main = _current = _lines.emplace_back(std::make_unique<Line>()).get();
  _main->name = "main thread";
  _main->fiber = &_mainFiber;
  _candidates.reserve(1);
  install(this);
  inForce = this;
}

SimulationScheduler::~SimulationScheduler() {
  inForce = nullptr;
  install(nullptr);
}

SimulationScheduler* SimulationScheduler::active() {
  return inForce;
}

void SimulationScheduler::sleepFor(unsigned microseconds) {
  Scheduler& scheduler = current();
  scheduler.sleepUntil(scheduler.now() + microseconds * Nanoseconds{1000});
}

void SimulationScheduler::sleepUntil(Nanoseconds time) {
  waitUntil(nullptr, nullptr, time);
}

bool SimulationScheduler::wait(runtime::Event& event, Nanoseconds deadline) {
  if (event.takeSignal()) return true;
  return waitUntil([](void* awaited) { return static_cast<runtime::Event*>(awaited)->takeSignal(); }, &event, deadline);
}

std::unique_ptr<runtime::Lane> SimulationScheduler::makeLane(std::string_view name, runtime::LaneClient& client) {
  auto line = std::make_unique<Line>();
  line->name = name;
  line->client = &client;
  _lines.reserve(_lines.size() + 1);
  _candidates.reserve(_lines.size() + 1);  // choosing takes no memory
  auto lane = std::make_unique<SimulatedLane>(*this, *line);
  _lines.push_back(std::move(line));
  return lane;
}

void SimulationScheduler::start(std::string_view name, std::function<void()> body) {
  Line& line = *_lines.emplace_back(std::make_unique<Line>());
  line.name = name;
  line.body = std::move(body);
  line.deadline = _now;
}

void SimulationScheduler::yield() {
  if (_lines.size() > 1) sleepUntil(_now);
}

void SimulationScheduler::beforeLock() {
  if (!_chooser || !_isInterruptible || _isChoosing) return;
  ++_locks;
  if (!_chooser->interrupts(*this)) return;
  note(_locks);
  Line& self = *_current;
  self.holds = nullptr;
  self.deadline = _now;
  suspend(self, pick(&self));
}

bool SimulationScheduler::othersCanRun() {
  collectCandidates(_current);
  return !_candidates.empty();
}

bool SimulationScheduler::waitUntil(bool (*holds)(void*), void* subject, Nanoseconds deadline) {
  Line& self = *_current;
  self.holds = holds;
  self.subject = subject;
  self.deadline = deadline;
  self.held = false;
  suspend(self, pick());
  return self.held;
}

bool SimulationScheduler::isMainThreadIdle() const {
  const auto isInBlock = [](const auto& line) { return line->name == "main queue" && line->fiber; };
  if (std::ranges::any_of(_lines, isInBlock)) return false;
  return (_current == _main ? runtime::innermostActivity() : _main->activity) == nullptr;
}

/// Leaves the running line for `next`, which may be the same; returns when it is its turn again.
void SimulationScheduler::suspend(Line& self, Line& next) {
  if (&next == &self) return;
  self.activity = runtime::innermostActivity();
  if (!next.fiber) {
    if (idleFibers().empty()) idleFibers().push_back(new Fiber(&SimulationScheduler::work));
    next.fiber = idleFibers().back();
    idleFibers().pop_back();
  }
  _current = &next;
  self.fiber->switchTo(*next.fiber);
  runtime::innermostActivity() = self.activity;
}

/// What a fiber other than the main thread's does: an item, or the body of a line, at a time.
void SimulationScheduler::work() {
  for (;;) {
    SimulationScheduler* scheduler = inForce;
    Fiber& self = *scheduler->_current->fiber;
    scheduler->runHere(*scheduler->_current);
    Line& next = scheduler->pick();
    scheduler->_current = &next;
    if (next.fiber) {
      idleFibers().push_back(&self);
      self.switchTo(*next.fiber);
    } else {
      next.fiber = &self;
    }
  }
}

void SimulationScheduler::runHere(Line& line) {
  runtime::innermostActivity() = nullptr;
  for (const char letter : line.name) note(static_cast<std::uint64_t>(letter));
  if (line.client) {
    line.client->runNextItem();
  } else {
    line.body();
  }
  note(1);
  line.fiber = nullptr;
  if (line.isForgotten || !line.client) erase(line);
}

void SimulationScheduler::erase(const Line& line) {
  std::erase_if(_lines, [&](const auto& each) { return each.get() == &line; });
}

/// When a line can go on, for a suspended one, or has something to do.
Nanoseconds SimulationScheduler::dueTime(Line& line) {
  if (line.client && !line.fiber) return line.isEnding ? Never : line.client->nextItemTime();
  if (line.holds && (line.held = line.held || line.holds(line.subject))) return AtOnce;
  return line.deadline;
}

/// The lines that can go on, now or later, in the order in which they are due.
void SimulationScheduler::collectCandidates(const Line* excluded) {
  const auto isBefore = [](const Candidate& a, const Candidate& b) {
    return a.due != b.due ? a.due < b.due : a.isLane > b.isLane;
  };
  _isChoosing = true;
  _candidates.clear();
  for (const auto& line : _lines) {
    if (line.get() == excluded) continue;
    const Nanoseconds due = dueTime(*line);
    const Candidate candidate{due, line->client && !line->fiber, line.get()};
    if (due != Never) _candidates.insert(std::ranges::upper_bound(_candidates, candidate, isBefore), candidate);
  }
  _isChoosing = false;
}

/// The line that goes on. Time passes only here.
SimulationScheduler::Line& SimulationScheduler::pick(const Line* excluded) {
  collectCandidates(excluded);
  if (_candidates.empty()) reportStandstill();

  std::size_t count = _candidates.size();
  if (_time == Time::InOrder) {
    const Nanoseconds time = std::max(_now, _candidates.front().due);
    while (_candidates[count - 1].due > time) --count;
  }
  const std::size_t chosen = _chooser && count > 1 ? _chooser->choose(count) : 0;
  _now = std::max(_now, _candidates[chosen].due);
  return *_candidates[chosen].line;
}

void SimulationScheduler::reportStandstill() const {
  std::fprintf(stderr, "nothing will ever happen; these wait for each other:\n");
  for (const auto& line : _lines) {
    if (line->fiber) std::fprintf(stderr, "%s\n", line->name.c_str());
  }
  std::abort();
}

}  // namespace test

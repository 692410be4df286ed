#pragma once

// A scheduler for tests: whoever waits runs the lanes, the one that is due first before the others, on its
// own thread, and the time jumps to the next thing that is due. Nothing runs while nobody waits, so that a
// test decides what meets what.

#include <dispatch/Scheduler.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

/// In force as long as it exists; to be made while no lane exists.
class VirtualScheduler final : public runtime::Scheduler {
 public:
  VirtualScheduler() { install(this); }
  ~VirtualScheduler() override { install(nullptr); }

  runtime::Nanoseconds now() override { return _now; }
  void sleepUntil(runtime::Nanoseconds time) override {
    while (runOneUntil(time)) {
    }
  }
  bool wait(runtime::Event& event, runtime::Nanoseconds deadline) override {
    while (!event.takeSignal()) {
      if (!runOneUntil(deadline)) return event.takeSignal();
    }
    return true;
  }
  std::unique_ptr<runtime::Lane> makeLane(std::string_view, runtime::LaneClient& client) override {
    return std::make_unique<VirtualLane>(*this, client);
  }

  /// Lets time pass without anyone running, as when the machine is busy.
  void stall(runtime::Nanoseconds span) { _now += span; }

 private:
  class VirtualLane final : public runtime::Lane {
   public:
    VirtualLane(VirtualScheduler& scheduler, runtime::LaneClient& laneClient)
        : client(laneClient), _lanes(scheduler._lanes), _current(scheduler._current) {
      _lanes.push_back(this);
    }
    ~VirtualLane() override { std::erase(_lanes, this); }
    void wake() override {}
    bool isCurrent() const override { return _current == this; }

    runtime::LaneClient& client;

   private:
    std::vector<VirtualLane*>& _lanes;
    const VirtualLane*& _current;
  };

  bool runOneUntil(runtime::Nanoseconds deadline) {
    const auto dueOf = [](VirtualLane* lane) { return lane->client.nextItemTime(); };
    const auto first = std::ranges::min_element(_lanes, {}, dueOf);
    const runtime::Nanoseconds due = first == _lanes.end() ? runtime::Never : dueOf(*first);
    if (due == runtime::Never || due > deadline) {
      EXPECT_NE(deadline, runtime::Never) << "nothing will ever happen";
      _now = std::max(_now, deadline);
      return false;
    }
    _now = std::max(_now, due);
    const VirtualLane* const before = std::exchange(_current, *first);
    (*first)->client.runNextItem();
    _current = before;
    return true;
  }

  runtime::Nanoseconds _now = 1;
  std::vector<VirtualLane*> _lanes;
  const VirtualLane* _current = nullptr;
};

}  // namespace test

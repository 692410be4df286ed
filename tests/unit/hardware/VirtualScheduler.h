#pragma once

// A scheduler that runs all lanes on the test's thread in virtual time. Installed for as long as it lives.

#include <dispatch/Scheduler.h>

#include <algorithm>
#include <vector>

class VirtualScheduler final : public runtime::Scheduler {
 public:
  VirtualScheduler() { install(this); }
  ~VirtualScheduler() override { install(nullptr); }

  runtime::Nanoseconds now() override { return _now; }
  void sleepUntil(runtime::Nanoseconds time) override { runUntil(time); }

  std::unique_ptr<runtime::Lane> makeLane(std::string_view, runtime::LaneClient& client) override {
    auto lane = std::make_unique<VirtualLane>(*this, client);
    _lanes.push_back(lane.get());
    return lane;
  }

  bool wait(runtime::Event& event, runtime::Nanoseconds deadline) override {
    while (!event.takeSignal()) {
      if (!runOne(deadline)) return false;
    }
    return true;
  }

  /// Lets time pass without anyone running, as when the machine is busy.
  void stall(runtime::Nanoseconds span) { _now += span; }

  /// Runs everything that is due up to `time`, which it then is.
  void runUntil(runtime::Nanoseconds time) {
    while (runOne(time)) {
    }
    _now = std::max(_now, time);
  }

  /// Runs up to `count` items, as far as there are any.
  void runItems(int count) {
    while (count-- > 0 && runOne(runtime::Never - 1)) {
    }
  }

 private:
  struct VirtualLane final : runtime::Lane {
    VirtualLane(VirtualScheduler& itsOwner, runtime::LaneClient& itsClient) : owner(itsOwner), client(itsClient) {}
    ~VirtualLane() override { std::erase(owner._lanes, this); }
    void wake() override {}
    bool isCurrent() const override { return owner._current == this; }

    VirtualScheduler& owner;
    runtime::LaneClient& client;
  };

  bool runOne(runtime::Nanoseconds deadline) {
    VirtualLane* next = nullptr;
    runtime::Nanoseconds time = runtime::Never;
    for (VirtualLane* lane : _lanes) {
      const runtime::Nanoseconds due = lane->client.nextItemTime();
      if (due >= time) continue;
      time = due;
      next = lane;
    }
    if (!next || time > deadline) return false;
    _now = std::max(_now, time);
    _current = next;
    next->client.runNextItem();
    _current = nullptr;
    return true;
  }

  runtime::Nanoseconds _now = 5 * runtime::NanosecondsPerSecond;
  std::vector<VirtualLane*> _lanes;
  VirtualLane* _current = nullptr;
};

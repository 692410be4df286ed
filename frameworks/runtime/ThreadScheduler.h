#pragma once

// The scheduler of production: the monotonic clock, and a thread for every lane. The only place in the
// frameworks that makes a thread, sleeps or waits.

#include <runtime/Scheduler.h>

namespace runtime {

class ThreadScheduler final : public Scheduler {
 public:
  Nanoseconds now() override;
  Nanoseconds roughNow() override;
  void sleepUntil(Nanoseconds time) override;

  /// The lane's thread carries the first 15 bytes of the name and takes no signals: those are the host's.
  /// Throws std::system_error when the system refuses another thread.
  std::unique_ptr<Lane> makeLane(std::string_view name, LaneClient& client) override;

  bool wait(Event& event, Nanoseconds deadline) override;
  bool isMainThread() override;
};

}  // namespace runtime

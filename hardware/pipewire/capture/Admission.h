#pragma once

// Whether a stream's samples may go to the sink, and when the last one did.

#include <runtime/Scheduler.h>

#include <algorithm>
#include <atomic>
#include <string>

namespace hardware::pipewire {

/// What is atomic is read by any thread, the server's data thread among them.
struct Admission {
  std::atomic<bool> isOver{false};       ///< the device has stopped
  std::atomic<bool> isOwnDevice{false};  ///< what comes is over a link from the device itself, and from no other

  // On the device's lane.
  runtime::Nanoseconds lastSample = 0;  ///< the time of the one that was delivered last; 0 while there is none
  runtime::Nanoseconds longestGap = 0;  ///< between two of them
  std::string problem;                  ///< why nothing of the stream can be delivered, for display; empty for nothing

  void noteSample(runtime::Nanoseconds time) {
    if (lastSample > 0) longestGap = std::max(longestGap, time - lastSample);
    lastSample = time;
  }

  bool admits() const noexcept {
    return isOwnDevice.load(std::memory_order_acquire) && !isOver.load(std::memory_order_acquire);
  }
};

}  // namespace hardware::pipewire

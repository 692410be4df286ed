#pragma once

// Which faults a sample suffers: a pure function of the rig's list and the sample's place.

#include <runtime/Scheduler.h>

#include <cstdint>
#include <optional>
#include <span>

#include "Rig.h"

namespace hardware::simulated {

struct SamplePlace {
  std::uint64_t index = 0;                              ///< since the start
  runtime::Nanoseconds elapsed = 0;                     ///< nominal time since the start
  std::optional<runtime::Nanoseconds> previousElapsed;  ///< of the sample before; nothing for the first
};

struct SampleFaults {
  bool isLost = false;
  bool hasNoImage = false;
  bool isUndecodable = false;
  bool hasInvalidTime = false;
  std::optional<std::int32_t> timescale;  ///< the one in force, if a fault has changed it
};

SampleFaults faultsAt(const SamplePlace& place, std::span<const Fault> faults);

/// The failure that is in force so long after the start, if there is one.
const RunningFailure* failureAt(runtime::Nanoseconds elapsed, std::span<const RunningFailure> failures);

/// What a time stamp becomes under the faults.
CMTime stampWith(const SampleFaults& faults, CMTime stamp);

}  // namespace hardware::simulated

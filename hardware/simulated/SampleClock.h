#pragma once

// When the samples of a running device are due, and how they are stamped. Periods are exact fractions and
// are counted, never summed up, so nothing drifts that is not meant to.

#include <CoreMedia/CMTime.h>
#include <runtime/Scheduler.h>

#include <cstdint>

namespace hardware::simulated {

/// The time from one sample to the next in seconds, as a fraction.
struct Period {
  std::int64_t value = 1;
  std::int64_t scale = 30;

  friend bool operator==(const Period& a, const Period& b) = default;
};

/// Imperfections of a device's clock. They move both when a sample comes and its time stamp.
struct ClockError {
  double driftInPartsPerMillion = 0;
  runtime::Nanoseconds jitter = 0;  ///< each sample's displacement is within plus or minus this
};

/// One thread at a time.
class SampleClock {
 public:
  /// The first sample is due at `start` on the scheduler's clock, and stamped with it.
  SampleClock(runtime::Nanoseconds start, Period period, std::int32_t timescale, ClockError error = {});

  /// From the next sample on, which keeps its time.
  void setPeriod(Period period, std::int32_t timescale);

  /// Goes on by `count` periods.
  void advance(std::uint64_t count = 1);

  /// When the sample `ahead` periods from here is due on the scheduler's clock.
  runtime::Nanoseconds due(std::uint64_t ahead = 0) const;

  /// The time stamp of the next sample. As long as period and timescale stay, stamps are the first one plus exact
  /// multiples of the period, rounded one by one where the timescale cannot tell them exactly.
  CMTime stamp() const;

  /// Nominal time from the start to the next sample.
  runtime::Nanoseconds elapsed() const;

 private:
  runtime::Nanoseconds nominal(std::uint64_t count) const;
  runtime::Nanoseconds displacement(std::uint64_t count) const;

  Period _period;
  std::int32_t _timescale;
  ClockError _error;
  std::uint64_t _count = 0;
  // Of the sample at which the present period began.
  runtime::Nanoseconds _baseDue;
  runtime::Nanoseconds _baseElapsed = 0;
  std::int64_t _baseStamp;  // in the present timescale
};

}  // namespace hardware::simulated

#include "FaultPlan.h"

namespace hardware::simulated {
namespace {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;

Nanoseconds timeOf(double seconds) {
  return static_cast<Nanoseconds>(seconds * static_cast<double>(NanosecondsPerSecond));
}

// Whether a fault of single samples strikes this one.
bool strikes(const Fault& fault, const SamplePlace& place) {
  switch (fault.trigger) {
    case Fault::Trigger::atSample:
      return place.index == fault.samples;
    case Fault::Trigger::atTime:
      return place.elapsed >= timeOf(fault.seconds) &&
             (!place.previousElapsed || *place.previousElapsed < timeOf(fault.seconds));
    case Fault::Trigger::everySamples:
      return fault.samples > 0 && place.index % fault.samples == fault.samples - 1;
  }
  return false;
}

// Whether a fault that lasts is in force.
bool isInForce(const Fault& fault, const SamplePlace& place) {
  switch (fault.trigger) {
    case Fault::Trigger::atSample:
      return place.index >= fault.samples;
    case Fault::Trigger::atTime:
      return place.elapsed >= timeOf(fault.seconds);
    case Fault::Trigger::everySamples:
      return fault.samples > 0 && place.index / fault.samples % 2 == 1;
  }
  return false;
}

}  // namespace

SampleFaults faultsAt(const SamplePlace& place, std::span<const Fault> faults) {
  SampleFaults result;
  for (const Fault& fault : faults) {
    switch (fault.kind) {
      case Fault::Kind::lost:
        result.isLost |= strikes(fault, place);
        break;
      case Fault::Kind::noImage:
        result.hasNoImage |= strikes(fault, place);
        break;
      case Fault::Kind::undecodable:
        result.isUndecodable |= strikes(fault, place);
        break;
      case Fault::Kind::invalidTime:
        result.hasInvalidTime |= strikes(fault, place);
        break;
      case Fault::Kind::timescale:
        if (isInForce(fault, place)) result.timescale = fault.timescale;
        break;
    }
  }
  return result;
}

const RunningFailure* failureAt(Nanoseconds elapsed, std::span<const RunningFailure> failures) {
  for (const RunningFailure& failure : failures) {
    const Nanoseconds sinceThen = elapsed - timeOf(failure.from);
    if (sinceThen >= 0 && sinceThen < timeOf(failure.duration)) return &failure;
  }
  return nullptr;
}

CMTime stampWith(const SampleFaults& faults, CMTime stamp) {
  if (faults.hasInvalidTime) return kCMTimeInvalid;
  if (!faults.timescale) return stamp;
  return CMTimeConvertScale(stamp, *faults.timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
}

}  // namespace hardware::simulated

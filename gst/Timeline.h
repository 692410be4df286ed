#pragma once

// Turns the stamps of samples, which are the machine's monotonic clock, into the pipeline's running time, for both pads
// of an element. Where the pipeline's clock is the monotonic one, exactly; else by the difference between the two
// clocks, which is measured with each sample and smoothed. Clips keep no clock: they begin when they are first heard.
// Any thread.

#include <mutex>
#include <optional>

#include "Inbox.h"

namespace brvgst {

class Timeline {
 public:
  /// In nanoseconds, below 0 for what was taken before the pipeline began to play; nothing without a clock.
  std::optional<gint64> runningTime(GstElement* element, const Sample& sample);
  /// The present one.
  static std::optional<gint64> runningTime(GstElement* element);

 private:
  gint64 offsetOf(GstClock* clock);

  std::mutex _lock;
  const void* _clock = nullptr;  ///< whose offset it is; not used otherwise
  double _offset = 0;
  std::shared_ptr<const Start> _clip;
  gint64 _clipBegin = 0;
};

}  // namespace brvgst

#include "Timeline.h"

#include <cmath>

namespace brvgst {

namespace {

constexpr double Smoothing = 1.0 / 32;
constexpr gint64 SoonEnough = 50'000;  ///< Nanoseconds.
constexpr double Jump = 100e6;         ///< Nanoseconds; more than any measurement is off by.

gint64 monotonicTime() {
  return std::chrono::nanoseconds(brv::Time::clock::now().time_since_epoch()).count();
}

/// Others derive from the system's clock, or slave it.
bool isMonotonic(GstClock* clock) {
  if (G_OBJECT_TYPE(clock) != GST_TYPE_SYSTEM_CLOCK) return false;
  GstClockType type = GST_CLOCK_TYPE_OTHER;
  g_object_get(clock, "clock-type", &type, nullptr);
  GstClockTime internal = 0, external = 0, numerator = 0, denominator = 0;
  gst_clock_get_calibration(clock, &internal, &external, &numerator, &denominator);
  return type == GST_CLOCK_TYPE_MONOTONIC && internal == external && numerator == denominator;
}

}  // namespace

std::optional<gint64> Timeline::runningTime(GstElement* element) {
  const ObjectPtr<GstClock> clock(gst_element_get_clock(element));
  if (!clock) return std::nullopt;
  return GST_CLOCK_DIFF(gst_element_get_base_time(element), gst_clock_get_time(clock.get()));
}

std::optional<gint64> Timeline::runningTime(GstElement* element, const Sample& sample) {
  const ObjectPtr<GstClock> clock(gst_element_get_clock(element));
  if (!clock) return std::nullopt;
  const auto baseTime = static_cast<gint64>(gst_element_get_base_time(element));
  const gint64 stamp = sample.time.count();
  const std::lock_guard lock(_lock);
  if (sample.start->pace == Start::Taker) {
    if (_clip != sample.start) {
      _clip = sample.start;
      _clipBegin = static_cast<gint64>(gst_clock_get_time(clock.get())) - baseTime - stamp;
    }
    return _clipBegin + stamp;
  }
  return stamp + offsetOf(clock.get()) - baseTime;
}

gint64 Timeline::offsetOf(GstClock* clock) {
  if (isMonotonic(clock)) return 0;
  double measured = 0;
  for (int attempt = 0; attempt < 4; ++attempt) {  // again where somebody else had the processor in between
    const gint64 before = monotonicTime();
    const auto time = static_cast<gint64>(gst_clock_get_time(clock));
    const gint64 lasted = monotonicTime() - before;
    measured = static_cast<double>(time - before) - static_cast<double>(lasted) / 2;
    if (lasted < SoonEnough) break;
  }
  if (_clock != clock || std::abs(measured - _offset) > Jump) {
    _clock = clock;
    _offset = measured;
  }
  _offset += (measured - _offset) * Smoothing;
  return std::llround(_offset);
}

}  // namespace brvgst

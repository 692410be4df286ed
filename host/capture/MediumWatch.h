#pragma once

// Notices when one medium of a recording stops while the recording goes on, and when it is back. Main thread.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace brvhost {

/// How far a medium has come.
struct MediumState {
  std::int64_t frames = 0;   ///< delivered so far
  double endSeconds = 0;     ///< where the last of them ends in the recording
  double sampleSeconds = 0;  ///< how long a frame of picture, or a run of sound, lasts
  bool isComplete = false;   ///< wants no more
};

class MediumWatch {
 public:
  using Clock = std::chrono::steady_clock;

  /// `name` is "picture" or "sound" and lives on; `ask` tells how the medium stands; `seconds` is the length asked for.
  MediumWatch(const char* name, std::function<MediumState()> ask, std::optional<double> seconds, Clock::time_point now)
      : _name(name), _ask(std::move(ask)), _seconds(seconds), _lastChange(now), _now(now) {}

  /// Brings everything below up to date.
  void look(Clock::time_point now);

  const char* name() const { return _name; }
  /// Whether it wants no more. One that stops just where it was to end has nothing more to come that would say so.
  bool isComplete() const { return _state.isComplete || (isSilent() && isLongEnough()); }
  /// Whether it lacks less than half a sample of the length asked for.
  bool isLongEnough() const { return _seconds && _state.endSeconds + _state.sampleSeconds / 2 >= *_seconds; }
  bool hasDelivered() const { return _state.frames > 0; }
  double endSeconds() const { return _state.endSeconds; }

  /// For how long nothing has come.
  double silentSeconds() const { return std::chrono::duration<double>(_now - _lastChange).count(); }
  /// For how long nothing comes of a medium that has stopped: two seconds, or two samples where those are longer.
  double idleSeconds() const { return std::max(2.0, 2 * _state.sampleSeconds); }
  /// Whether more was to come, and has not for that long.
  bool isIdle() const { return !isComplete() && isSilent(); }

  /// What people should hear, once each time: that nothing comes any more, or that it is back.
  std::optional<std::string> takeNews();

 private:
  bool isSilent() const { return silentSeconds() >= idleSeconds(); }

  const char* _name;
  std::function<MediumState()> _ask;
  std::optional<double> _seconds;
  MediumState _state;
  Clock::time_point _lastChange;
  Clock::time_point _now;
  bool _isToldOf = false;  ///< that it is idle
};

}  // namespace brvhost

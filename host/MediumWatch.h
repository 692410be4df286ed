#pragma once

// Notices when one medium of a recording stops while the recording goes on, and when it is back. Main thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace brvhost {

/// How far a medium has come.
struct MediumState {
  std::int64_t frames = 0;  ///< delivered so far
  double endSeconds = 0;    ///< where the last of them ends in the recording
  bool isComplete = false;  ///< wants no more
};

class MediumWatch {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr double IdleSeconds = 2;

  /// `name` is "picture" or "sound" and lives on; `ask` tells how the medium stands.
  MediumWatch(const char* name, std::function<MediumState()> ask, Clock::time_point now)
      : _name(name), _ask(std::move(ask)), _lastChange(now), _now(now) {}

  /// Brings everything below up to date.
  void look(Clock::time_point now);

  const char* name() const { return _name; }
  bool isComplete() const { return _state.isComplete; }
  bool hasDelivered() const { return _state.frames > 0; }
  double endSeconds() const { return _state.endSeconds; }

  /// For how long nothing has come.
  double silentSeconds() const { return std::chrono::duration<double>(_now - _lastChange).count(); }
  /// Whether more was to come, and has not for IdleSeconds.
  bool isIdle() const { return !isComplete() && silentSeconds() >= IdleSeconds; }

  /// What people should hear, once each time: that nothing comes any more, or that it is back.
  std::optional<std::string> takeNews();

 private:
  const char* _name;
  std::function<MediumState()> _ask;
  MediumState _state;
  Clock::time_point _lastChange;
  Clock::time_point _now;
  bool _isToldOf = false;  ///< that it is idle
};

}  // namespace brvhost

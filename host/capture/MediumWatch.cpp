#include "capture/MediumWatch.h"

#include "common/Failure.h"

namespace brvhost {

void MediumWatch::look(Clock::time_point now) {
  const MediumState state = _ask();
  if (state.frames != _state.frames) _lastChange = now;
  _state = state;
  _now = now;
}

std::optional<std::string> MediumWatch::takeNews() {
  if (isIdle() == _isToldOf || isComplete()) return std::nullopt;
  _isToldOf = !_isToldOf;
  return _isToldOf ? formatted("no %s for %g s", _name, idleSeconds()) : formatted("the %s is back", _name);
}

}  // namespace brvhost

#include "capture/Capture.h"

#include <spa/pod/builder.h>

#include <algorithm>
#include <array>
#include <utility>

#include "capture/FailureReason.h"

namespace hardware::pipewire {
namespace {

using runtime::Nanoseconds;
constexpr Nanoseconds Millisecond = 1'000'000;

/// A program that may not use a device gets no answer at all.
constexpr Nanoseconds PatienceForLink = 800 * Millisecond;
/// Cameras may take seconds to begin.
constexpr Nanoseconds PatienceForFirstSample = 3000 * Millisecond;
constexpr Nanoseconds TimeBetweenChecks = 100 * Millisecond;
/// Closing a device that only takes its time helps nobody.
constexpr Nanoseconds TimeBeforeClosingASilentOne = 3000 * Millisecond;

Nanoseconds now() {
  return runtime::Scheduler::current().now();
}

}  // namespace

Capture::Capture(Target target, Sink& sink, std::shared_ptr<Capture> former)
    : _target(std::move(target)), _sink(sink), _former(std::move(former)), _end(_loop, [this] {
        _progress->stop();
        _retry->stop();
        close();
      }) {}

Capture::~Capture() {
  _admission.isOver = true;
  _loop.end();
}

void Capture::begin(std::unique_ptr<StreamHandler> handler) {
  _handler = std::move(handler);
  _progress.emplace(_loop, [this] { checkProgress(); });
  _retry.emplace(_loop, [this] { tryAgain(); });
  _loop.call([this] {
    if (_former) _former->end();
    open();
  });
  _loop.begin(
      _target.name, weak_from_this(), [this] { close(); },
      [this] {
        _isConnectionLost = true;
        fail("there is no memory");
      });
}

void Capture::reconfigure(std::function<void(StreamHandler&)> change) {
  _loop.call([this, change = std::move(change)] {
    const bool isOpen = _stream != nullptr;
    closeStream();
    change(*_handler);
    if (isOpen) openStream();
  });
}

void Capture::cease() {
  _admission.isOver = true;
  _end.raise();
}

void Capture::end() {
  std::lock_guard lock(_endLock);
  if (_former) _former->end();  // also when this one ends before its first turn
  _loop.end();
}

void Capture::open() {
  if (_admission.isOver) return;
  _connection.emplace(_loop, _handler->use(), [this](std::uint32_t object, int result, std::string_view message) {
    // What concerns a link or the stream, they say themselves.
    if (object != PW_ID_CORE || result != -EPIPE) return;
    _isConnectionLost = true;
    fail(reasonOf(result, message));
  });
  _isConnectionLost = false;
  if (!_connection->isOpen()) return fail(_connection->reason());
  _node.emplace(*_connection, _target.serial, [this](const NodeWatch::State& state) { linkChanged(state); });
  openStream();
}

void Capture::close() {
  closeStream();
  _node.reset();
  _connection.reset();
}

void Capture::tryAgain() {
  if (!_connection || !_connection->isOpen() || _isConnectionLost) {
    close();
    return open();
  }
  const bool hasCome = _admission.lastSample > _failedAt || (_isLinked && !hasBegun() && _waitingSince > _failedAt);
  if (hasCome && !_hasError && _admission.problem.empty()) return checkProgress();  // it was only slow
  ++_triesInVain;
  closeStream();
  _connection->afterAnswers([this] {
    if (_admission.isOver) return;
    _node->resetNode();
    openStream();
  });
}

void Capture::openStream() {
  static const pw_stream_events events = [] {
    pw_stream_events made{};
    made.version = PW_VERSION_STREAM_EVENTS;
    made.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char* error) {
      auto& self = *static_cast<Capture*>(data);
      if (state != PW_STREAM_STATE_ERROR) return;
      self._hasError = true;
      self._loop.guard([&] { self.fail(reasonOf(0, error ? error : "")); });
    };
    return made;
  }();

  // Never another device in this one's place, not even where a stream of this program was once moved to, and no volume
  // that was once set for it.
  Properties properties = _handler->properties();
  properties[PW_KEY_TARGET_OBJECT] = _target.serial;
  properties[PW_KEY_NODE_DONT_RECONNECT] = "true";
  properties["node.dont-fallback"] = "true";
  properties["state.restore-props"] = "false";
  properties["state.restore-target"] = "false";
  properties[PW_KEY_STREAM_DONT_REMIX] = "true";
  _stream = pw_stream_new(_connection->core(), "capture", makeProperties(properties));
  if (!_stream) return fail("there is no memory for a stream");
  pw_stream_add_listener(_stream, &_streamListener, &events, this);
  _handler->attach(_stream);
  _node->watch(_stream);

  std::array<std::uint8_t, 8192> memory;
  spa_pod_builder builder;
  spa_pod_builder_init(&builder, memory.data(), memory.size());
  auto formats = _handler->request(builder);
  const int result = pw_stream_connect(_stream, PW_DIRECTION_INPUT, PW_ID_ANY, _handler->flags(), formats.data(),
                                       static_cast<std::uint32_t>(formats.size()));
  if (result < 0) return fail(reasonOf(result, {}));
  _waitingSince = now();
  _progress->set(TimeBetweenChecks);
  _retry->stop();
}

void Capture::closeStream() {
  _admission.isOwnDevice = false;
  _admission.lastSample = 0;
  _admission.problem.clear();
  _isLinked = _wasLinked = _hasError = false;
  if (_progress) _progress->stop();
  if (_node) _node->watch(nullptr);
  if (!_stream) return;
  pw_stream_destroy(std::exchange(_stream, nullptr));  // with its listeners, which hear of the buffers that go
}

void Capture::linkChanged(const NodeWatch::State& state) {
  if (state.isLinked && !_isLinked) _waitingSince = now();
  _isLinked = state.isLinked;
  _wasLinked |= _isLinked;
  _admission.isOwnDevice = state.isLinked;
  if (!state.error.empty()) {
    _hasError = true;
    return fail(reasonOf(0, state.error));
  }
  if (state.isForeign) fail("another device was offered in its place");
}

/// How long nothing may happen now.
Nanoseconds Capture::patience() const {
  if (!_isLinked) return PatienceForLink;
  if (!hasBegun()) return PatienceForFirstSample << std::min(_triesInVain, 2);
  // Some send less often than they say.
  constexpr Nanoseconds longest = 10'000 * Millisecond;
  return std::max(_handler->longestSilence(), std::min(_admission.longestGap * 3 / 2, longest));
}

void Capture::checkProgress() {
  if (_admission.lastSample > _toldAt) _toldReason.clear();
  if (!_admission.problem.empty()) return fail(_admission.problem);
  if (hasBegun()) _triesInVain = 0;
  const Nanoseconds silence = now() - std::max(_admission.lastSample, _waitingSince);
  if (silence > patience()) {
    if (!_isLinked) {
      return fail(_wasLinked ? "it was disconnected from this program"
                             : "PipeWire does not connect it: this program may not use it, or no session manager is "
                               "running");
    }
    if (!hasBegun()) return fail("it sends nothing");
    return fail("it has stopped sending: there may be no such device any more", TimeBeforeClosingASilentOne);
  }
  // One that sends is looked at when it could have been silent for too long: each look wakes the lane.
  _progress->set(hasBegun() ? std::clamp(patience() - silence, TimeBetweenChecks, PatienceForLink) : TimeBetweenChecks);
}

/// Says so once for each reason, until a sample has come again.
void Capture::fail(std::string_view reason, Nanoseconds untilNextTry) {
  if (_admission.isOver) return;
  _progress->stop();
  _retry->set(untilNextTry);
  _failedAt = now();
  if (_toldReason == reason) return;
  _toldReason = reason;
  _toldAt = _failedAt;
  _sink.deviceFailed(reason);
}

}  // namespace hardware::pipewire

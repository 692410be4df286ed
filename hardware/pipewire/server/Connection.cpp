#include "server/Connection.h"

#include <runtime/SignalsBlocked.h>

#include <cerrno>
#include <mutex>
#include <utility>

namespace hardware::pipewire {

Connection::Connection(EventLoop& loop, Use use, ErrorHandler onError) : _loop(loop), _onError(std::move(onError)) {
  const runtime::SignalsBlocked signalsBlocked;  // the library starts a thread for each connection
  // The library asks for the user's name with a function that is not made for several threads.
  static std::mutex oneAtATime;
  const std::lock_guard lock(oneAtATime);
  const char* const configuration = use == Use::sound ? "client-rt.conf" : "client.conf";
  errno = 0;
  _context = pw_context_new(loop.get(), pw_properties_new(PW_KEY_CONFIG_NAME, configuration, nullptr), 0);
  if (_context) _core = pw_context_connect(_context, nullptr, 0);
  _hasTooManyFiles = !_core && (errno == EMFILE || errno == ENFILE);
  if (!_core) return;
  static const pw_core_events events = [] {
    pw_core_events made{};
    made.version = PW_VERSION_CORE_EVENTS;
    made.done = &Connection::coreDone;
    made.error = &Connection::coreError;
    return made;
  }();
  pw_core_add_listener(_core, &_listener, &events, this);
}

Connection::~Connection() {
  if (_core) {
    spa_hook_remove(&_listener);
    pw_core_disconnect(_core);
  }
  if (_context) pw_context_destroy(_context);
}

void Connection::afterAnswers(std::function<void()> done) {
  _awaited[pw_core_sync(_core, PW_ID_CORE, 0)] = std::move(done);
}

void Connection::coreDone(void* data, std::uint32_t id, int sequence) {
  auto& self = *static_cast<Connection*>(data);
  const auto awaited = self._awaited.extract(sequence);
  if (id == PW_ID_CORE && awaited) self._loop.guard(awaited.mapped());
}

void Connection::coreError(void* data, std::uint32_t id, int, int result, const char* message) {
  auto& self = *static_cast<Connection*>(data);
  self._loop.guard([&] { self._onError(id, result, message ? message : ""); });
}

}  // namespace hardware::pipewire

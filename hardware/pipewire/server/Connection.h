#pragma once

// A connection to the PipeWire server. Lives on an event loop.

#include <pipewire/pipewire.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string_view>

#include "server/EventLoop.h"

namespace hardware::pipewire {

class Connection {
 public:
  /// Hears of an error that concerns an object of this connection; object PW_ID_CORE and -EPIPE mean that the server is
  /// gone. Must not destroy the connection.
  using ErrorHandler = std::function<void(std::uint32_t object, int result, std::string_view message)>;

  /// For sound, the library's data thread is one that the system schedules in real time, where that may be had.
  enum class Use { control, pictures, sound };

  Connection(EventLoop& loop, Use use, ErrorHandler onError);
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// False when it could not be made; then it has no core, and none can be asked for.
  bool isOpen() const { return _core != nullptr; }
  /// Why it is not open.
  const char* reason() const {
    return _hasTooManyFiles ? "this program has too many files open" : "there is no PipeWire server";
  }
  pw_core* core() const { return _core; }
  EventLoop& loop() const { return _loop; }

  /// A registry, which the caller destroys before the connection.
  pw_registry* makeRegistry() { return pw_core_get_registry(_core, PW_VERSION_REGISTRY, 0); }

  /// Calls `done` when the server has answered all that was asked so far.
  void afterAnswers(std::function<void()> done);

 private:
  static void coreDone(void* data, std::uint32_t id, int sequence);
  static void coreError(void* data, std::uint32_t id, int sequence, int result, const char* message);

  EventLoop& _loop;
  ErrorHandler _onError;
  pw_context* _context = nullptr;
  pw_core* _core = nullptr;
  bool _hasTooManyFiles = false;
  spa_hook _listener{};
  std::map<int, std::function<void()>> _awaited;
};

/// An object of the server as a connection sees it, with a listener.
class Proxy {
 public:
  Proxy() = default;
  template <typename Events>
  Proxy(void* bound, const Events& events, void* listener) : _proxy(static_cast<pw_proxy*>(bound)) {
    if (_proxy) pw_proxy_add_object_listener(_proxy, &_hook, &events, listener);
  }
  ~Proxy() {
    if (!_proxy) return;
    spa_hook_remove(&_hook);
    pw_proxy_destroy(_proxy);
  }

  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  /// The library's own name for it: a pw_node, a pw_port.
  template <typename Object>
  Object* as() const {
    return reinterpret_cast<Object*>(_proxy);
  }

 private:
  pw_proxy* _proxy = nullptr;
  spa_hook _hook{};
};

}  // namespace hardware::pipewire

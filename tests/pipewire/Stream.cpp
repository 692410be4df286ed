#include "Stream.h"

#include <runtime/Scheduler.h>

#include <stdexcept>

#include "Server.h"

/// Read by ThreadSanitizer. Two connections of a process that are made at the same time may look the user's name up
/// into the same static memory, as libpipewire does it: both write the same.
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "race:pw_get_user_name\n";
}

namespace test::pipewire {
namespace {

pw_properties* made(const Properties& from) {
  pw_properties* properties = pw_properties_new(nullptr, nullptr);
  for (const auto& [key, value] : from) pw_properties_set(properties, key.c_str(), value.c_str());
  return properties;
}

}  // namespace

std::int64_t now() {
  return runtime::Scheduler::current().now();
}

Client::Client() {
  pw_init(nullptr, nullptr);
  _loop = pw_thread_loop_new("device", nullptr);
  _context = pw_context_new(loop(), nullptr, 0);
  pw_thread_loop_start(_loop);
  const auto connects = [this] {
    locked([this] { _core = pw_context_connect(_context, nullptr, 0); });
    return _core != nullptr;
  };
  if (!until(connects, 10)) throw std::runtime_error("there is no server");
}

Client::~Client() {
  pw_thread_loop_stop(_loop);
  pw_context_destroy(_context);
  pw_thread_loop_destroy(_loop);
}

void Client::locked(const std::function<void()>& action) const {
  pw_thread_loop_lock(_loop);
  action();
  pw_thread_loop_unlock(_loop);
}

ServerObject::ServerObject(const std::string& factory, const Properties& properties) {
  const char* const type = factory == "spa-device-factory" ? PW_TYPE_INTERFACE_Device : PW_TYPE_INTERFACE_Node;
  _client.locked([&] {
    pw_properties* const all = made(properties);
    _proxy = static_cast<pw_proxy*>(pw_core_create_object(_client.core(), factory.c_str(), type, 3, &all->dict, 0));
    pw_properties_free(all);
  });
  if (!until([this] { return id() != std::to_string(SPA_ID_INVALID); }, 10))
    throw std::runtime_error("the server cannot make " + properties.at("factory.name"));
}

ServerObject::~ServerObject() {
  _client.locked([&] { pw_proxy_destroy(_proxy); });
}

std::string ServerObject::id() const {
  std::uint32_t id = SPA_ID_INVALID;
  _client.locked([&] { id = pw_proxy_get_bound_id(_proxy); });
  return std::to_string(id);
}

void Stream::plug(const Properties& properties, int flags, std::vector<const spa_pod*> formats) {
  static const pw_stream_events events = [] {
    pw_stream_events all{};
    all.version = PW_VERSION_STREAM_EVENTS;
    all.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char*) {
      ++static_cast<Stream*>(data)->_run;
      static_cast<Stream*>(data)->streamingChanged(state == PW_STREAM_STATE_STREAMING);
    };
    all.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
      if (id != SPA_PARAM_Format || !param) return;
      ++static_cast<Stream*>(data)->_run;
      static_cast<Stream*>(data)->formatChosen(*param);
    };
    all.process = [](void* data) { static_cast<Stream*>(data)->process(); };
    return all;
  }();
  _client = std::make_unique<Client>();
  _client->locked([&] {
    const auto expired = [](void* data, std::uint64_t) { static_cast<Stream*>(data)->tick(); };
    _timer = pw_loop_add_timer(_client->loop(), expired, this);
    _stream = pw_stream_new(_client->core(), "device", made(properties));
    pw_stream_add_listener(_stream, &_listener, &events, this);
    pw_stream_connect(_stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      static_cast<pw_stream_flags>(flags | PW_STREAM_FLAG_MAP_BUFFERS), formats.data(),
                      static_cast<std::uint32_t>(formats.size()));
  });
  const auto isThere = [this] {
    std::uint32_t id = SPA_ID_INVALID;
    _client->locked([&] { id = pw_stream_get_node_id(_stream); });
    return id != SPA_ID_INVALID;
  };
  if (!until(isThere, 10)) throw std::runtime_error("the server does not take " + properties.at(PW_KEY_NODE_NAME));
}

void Stream::pull() {
  if (!_client) return;
  _client->locked([&] {
    pw_stream_destroy(_stream);
    pw_loop_destroy_source(_client->loop(), _timer);
  });
  _client.reset();
}

void Stream::update(std::vector<const spa_pod*> params) {
  pw_stream_update_params(_stream, params.data(), static_cast<std::uint32_t>(params.size()));
}

void Stream::setPeriod(std::int64_t nanoseconds) {
  timespec first{0, nanoseconds ? 1 : 0}, period{0, static_cast<long>(nanoseconds)};
  pw_loop_update_timer(_client->loop(), _timer, &first, &period, false);
}

}  // namespace test::pipewire

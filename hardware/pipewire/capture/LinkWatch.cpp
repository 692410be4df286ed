#include "capture/LinkWatch.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "server/Properties.h"

namespace hardware::pipewire {

struct LinkWatch::Link {
  LinkWatch& watch;
  bool isOwn;
  std::string error;
  std::unique_ptr<Proxy> proxy;
};

LinkWatch::LinkWatch(Connection& connection, std::string serial, std::function<void(const State&)> onChange)
    : _serial(std::move(serial)), _onChange(std::move(onChange)) {
  static const pw_registry_events events = [] {
    pw_registry_events made{};
    made.version = PW_VERSION_REGISTRY_EVENTS;
    made.global = [](void* watch, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                     const spa_dict* properties) {
      static_cast<LinkWatch*>(watch)->objectAppeared(id, type, properties);
    };
    made.global_remove = [](void* watch, std::uint32_t id) { static_cast<LinkWatch*>(watch)->objectDisappeared(id); };
    return made;
  }();
  _registry = std::make_unique<Proxy>(connection.makeRegistry(), events, this);
}

LinkWatch::~LinkWatch() = default;

void LinkWatch::watch(pw_stream* stream) {
  _links.clear();
  _stream = stream;
}

// The server tells of everything that was there before it carries out what this connection asks for: the device's node
// is known before a link of the stream can be.
void LinkWatch::objectAppeared(std::uint32_t id, const char* type, const spa_dict* dict) {
  const std::string_view interface = type;
  Properties properties;
  merge(dict, properties);
  if (interface == PW_TYPE_INTERFACE_Node && valueOf(properties, PW_KEY_OBJECT_SERIAL) == _serial) _node = id;
  if (interface != PW_TYPE_INTERFACE_Link || !_stream) return;
  if (objectID(properties, PW_KEY_LINK_INPUT_NODE) != pw_stream_get_node_id(_stream)) return;

  auto link = std::make_unique<Link>(Link{*this, objectID(properties, PW_KEY_LINK_OUTPUT_NODE) == _node, {}, nullptr});
  static const pw_link_events events = [] {
    pw_link_events made{};
    made.version = PW_VERSION_LINK_EVENTS;
    made.info = [](void* data, const pw_link_info* info) {
      auto& self = *static_cast<Link*>(data);
      self.watch.linkChanged(self, *info);
    };
    return made;
  }();
  Link* const listener = link.get();
  link->proxy = std::make_unique<Proxy>(pw_registry_bind(_registry->as<pw_registry>(), id, type, PW_VERSION_LINK, 0),
                                        events, listener);
  _links[id] = std::move(link);
  tell();
}

void LinkWatch::objectDisappeared(std::uint32_t id) {
  if (id == _node) _node = PW_ID_ANY;
  if (_links.erase(id) > 0) tell();
}

void LinkWatch::linkChanged(Link& link, const pw_link_info& info) {
  if (info.state != PW_LINK_STATE_ERROR) return;
  link.error = info.error && *info.error ? info.error : "the server does not say why";
  tell();
}

void LinkWatch::tell() {
  State state;
  state.isForeign = std::any_of(_links.begin(), _links.end(), [](const auto& link) { return !link.second->isOwn; });
  state.isLinked = !_links.empty() && !state.isForeign;
  for (const auto& [id, link] : _links) {
    if (state.error.empty()) state.error = link->error;
  }
  _onChange(state);
}

}  // namespace hardware::pipewire

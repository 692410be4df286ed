#include "capture/NodeWatch.h"

#include <spa/node/command.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "server/Properties.h"

namespace hardware::pipewire {

struct NodeWatch::Link {
  NodeWatch& watch;
  bool isOwn;
  std::string error;
  std::unique_ptr<Proxy> proxy;
};

NodeWatch::NodeWatch(Connection& connection, std::string serial, std::function<void(const State&)> onChange)
    : _loop(connection.loop()), _serial(std::move(serial)), _onChange(std::move(onChange)) {
  static const pw_registry_events events = [] {
    pw_registry_events made{};
    made.version = PW_VERSION_REGISTRY_EVENTS;
    made.global = [](void* watch, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                     const spa_dict* properties) {
      auto& self = *static_cast<NodeWatch*>(watch);
      self._loop.guard([&] { self.objectAppeared(id, type, properties); });
    };
    made.global_remove = [](void* watch, std::uint32_t id) {
      auto& self = *static_cast<NodeWatch*>(watch);
      self._loop.guard([&] { self.objectDisappeared(id); });
    };
    return made;
  }();
  _registry = std::make_unique<Proxy>(connection.makeRegistry(), events, this);
}

NodeWatch::~NodeWatch() = default;

void NodeWatch::bindNode(std::uint32_t id, const char* type) {
  static const pw_node_events events = [] {
    pw_node_events made{};
    made.version = PW_VERSION_NODE_EVENTS;
    made.info = [](void* watch, const pw_node_info* info) { static_cast<NodeWatch*>(watch)->_nodeState = info->state; };
    return made;
  }();
  _nodeID = id;
  _node = std::make_unique<Proxy>(pw_registry_bind(_registry->as<pw_registry>(), id, type, PW_VERSION_NODE, 0), events,
                                  this);
}

void NodeWatch::resetNode() {
  if (!_node || _nodeState == PW_NODE_STATE_RUNNING) return;
  const spa_command suspend = SPA_NODE_COMMAND_INIT(SPA_NODE_COMMAND_Suspend);
  pw_node_send_command(_node->as<pw_node>(), &suspend);
}

void NodeWatch::watch(pw_stream* stream) {
  _links.clear();
  _stream = stream;
}

// The server tells of everything that was there before it carries out what this connection asks for: the device's node
// is known before a link of the stream can be.
void NodeWatch::objectAppeared(std::uint32_t id, const char* type, const spa_dict* dict) {
  const std::string_view interface = type;
  Properties properties;
  merge(dict, properties);
  if (interface == PW_TYPE_INTERFACE_Node && valueOf(properties, PW_KEY_OBJECT_SERIAL) == _serial) bindNode(id, type);
  if (interface != PW_TYPE_INTERFACE_Link || !_stream) return;
  if (objectID(properties, PW_KEY_LINK_INPUT_NODE) != pw_stream_get_node_id(_stream)) return;

  auto link =
      std::make_unique<Link>(Link{*this, objectID(properties, PW_KEY_LINK_OUTPUT_NODE) == _nodeID, {}, nullptr});
  static const pw_link_events events = [] {
    pw_link_events made{};
    made.version = PW_VERSION_LINK_EVENTS;
    made.info = [](void* data, const pw_link_info* info) {
      auto& self = *static_cast<Link*>(data);
      self.watch._loop.guard([&] { self.watch.linkChanged(self, *info); });
    };
    return made;
  }();
  Link* const listener = link.get();
  link->proxy = std::make_unique<Proxy>(pw_registry_bind(_registry->as<pw_registry>(), id, type, PW_VERSION_LINK, 0),
                                        events, listener);
  _links[id] = std::move(link);
  tell();
}

void NodeWatch::objectDisappeared(std::uint32_t id) {
  if (id == _nodeID) {
    _nodeID = PW_ID_ANY;
    _node.reset();
  }
  if (_links.erase(id) > 0) tell();
}

void NodeWatch::linkChanged(Link& link, const pw_link_info& info) {
  if (info.state != PW_LINK_STATE_ERROR) return;
  link.error = info.error && *info.error ? info.error : "the server does not say why";
  tell();
}

void NodeWatch::tell() {
  State state;
  state.isForeign = std::any_of(_links.begin(), _links.end(), [](const auto& link) { return !link.second->isOwn; });
  state.isLinked = !_links.empty() && !state.isForeign;
  for (const auto& [id, link] : _links) {
    if (state.error.empty()) state.error = link->error;
  }
  _onChange(state);
}

}  // namespace hardware::pipewire

#pragma once

// The node of a device, and what becomes of the links from it to a stream. A session manager makes them: it may give a
// stream another device than it asked for, and of a device that cannot be opened only the link tells. Lives on a
// connection's event loop.

#include <pipewire/pipewire.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "server/Connection.h"

namespace hardware::pipewire {

class NodeWatch {
 public:
  struct State {
    bool isLinked = false;   ///< there are links, and all of them come from the device itself
    bool isForeign = false;  ///< another device was put in its place
    std::string error;       ///< of a link, as the server words it; empty for none
  };

  /// Watches the node with this serial number. `onChange` hears of the links, and must not destroy the watch.
  NodeWatch(Connection& connection, std::string serial, std::function<void(const State&)> onChange);
  ~NodeWatch();

  /// The stream whose links count; null for none, and the earlier one's are forgotten.
  void watch(pw_stream* stream);

  /// Lets the server close the device and forget that it failed, unless it is running for another program: as long as
  /// it remembers, it does not try the device again.
  void resetNode();

 private:
  struct Link;

  void bindNode(std::uint32_t id, const char* type);
  void objectAppeared(std::uint32_t id, const char* type, const spa_dict* properties);
  void objectDisappeared(std::uint32_t id);
  void linkChanged(Link& link, const pw_link_info& info);
  void tell();

  EventLoop& _loop;
  const std::string _serial;
  const std::function<void(const State&)> _onChange;
  std::uint32_t _nodeID = PW_ID_ANY;
  pw_node_state _nodeState = PW_NODE_STATE_CREATING;
  pw_stream* _stream = nullptr;
  std::map<std::uint32_t, std::unique_ptr<Link>> _links;
  std::unique_ptr<Proxy> _registry;
  std::unique_ptr<Proxy> _node;
};

}  // namespace hardware::pipewire

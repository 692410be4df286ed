#pragma once

// What becomes of the links of a stream. A session manager makes them: it may give a stream another device than it
// asked for, and of a device that cannot be opened only the link tells. Lives on a connection's event loop.

#include <pipewire/pipewire.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "server/Connection.h"

namespace hardware::pipewire {

class LinkWatch {
 public:
  struct State {
    bool isLinked = false;   ///< there are links, and all of them come from the device itself
    bool isForeign = false;  ///< another device was put in its place
    std::string error;       ///< of a link, as the server words it; empty for none
  };

  /// Watches the links from the node with this serial number. `onChange` must not destroy the watch.
  LinkWatch(Connection& connection, std::string serial, std::function<void(const State&)> onChange);
  ~LinkWatch();

  /// The stream whose links count; null for none, and the earlier one's are forgotten.
  void watch(pw_stream* stream);

 private:
  struct Link;

  void objectAppeared(std::uint32_t id, const char* type, const spa_dict* properties);
  void objectDisappeared(std::uint32_t id);
  void linkChanged(Link& link, const pw_link_info& info);
  void tell();

  const std::string _serial;
  const std::function<void(const State&)> _onChange;
  std::uint32_t _node = PW_ID_ANY;
  pw_stream* _stream = nullptr;
  std::map<std::uint32_t, std::unique_ptr<Link>> _links;
  std::unique_ptr<Proxy> _registry;
};

}  // namespace hardware::pipewire

#pragma once

// The cameras and microphones that the server has, and what it says of them: kept up to date for as long as a
// connection lasts. Lives on the connection's event loop.

#include <pipewire/pipewire.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "listing/Source.h"
#include "server/Connection.h"

namespace hardware::pipewire {

class ServerMirror {
 public:
  /// `onSettled` is called each time that something has changed and the server has answered all that was asked about
  /// it, for the first time when everything that was there at first is known.
  ServerMirror(Connection& connection, std::function<void()> onSettled);
  ~ServerMirror();

  /// False while answers of the server are awaited.
  bool isSettled() const { return _awaited == 0; }

  /// In the order in which they came to the server.
  std::vector<Source> sources() const;

 private:
  struct Object;

  void objectAppeared(std::uint32_t id, const char* type, const spa_dict* properties);
  void objectDisappeared(std::uint32_t id);
  /// Something was asked, or has changed: to be looked at when the server has no more to say.
  void awaitAnswers();

  Connection& _connection;
  const std::function<void()> _onSettled;
  std::map<std::uint32_t, std::unique_ptr<Object>> _objects;
  int _awaited = 0;
  std::unique_ptr<Proxy> _registry;
};

}  // namespace hardware::pipewire

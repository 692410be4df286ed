#pragma once

// Serves the page to those who have its address with the token in it: on threads of its own, with limits on how many
// connect, how much they send, and how long they take. What concerns sources is done on the main thread.

#include <memory>
#include <string>
#include <vector>

#include "monitor/Broadcast.h"
#include "monitor/Controls.h"
#include "monitor/Wall.h"
#include "monitor/WorkQueue.h"

namespace brvhost {

class WebServer {
 public:
  /// Listens at `address`, a name or a number, and at `port` or, where that is 0, any that is free. Throws Failure.
  WebServer(Wall& wall, Broadcast& broadcast, WorkQueue& queue, const std::string& address, int port);
  /// Ends all connections.
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  /// "http://127.0.0.1:8730/?token=...", this machine's own first.
  std::vector<std::string> urls() const;

 private:
  struct Listener;

  Broadcast& _broadcast;
  WorkQueue& _queue;
  const std::string _address;
  const std::unique_ptr<Controls> _controls;
  const std::unique_ptr<Listener> _listener;
};

}  // namespace brvhost

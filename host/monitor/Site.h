#pragma once

// What requests are answered with: who may ask, the page, the stream of pictures and states, settings, recordings and
// snapshots. Knows no sockets; any number of threads. Included where httplib.h is.

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "monitor/Broadcast.h"
#include "monitor/Controls.h"

namespace brvhost {

class Site : public httplib::Server {
 public:
  /// `address`: where it listens, as people named it.
  Site(Controls& controls, Broadcast& broadcast, std::string address);

  /// Before the first request.
  void setPort(int port) { _port = port; }
  int port() const { return _port; }
  /// "http://127.0.0.1:8730/?token=...".
  std::string url(const std::string& address) const;

 private:
  std::pair<int, const char*> refusalOf(const httplib::Request& request) const;
  bool isHost(const httplib::Request& request, const std::string& host) const;
  std::string cookieName() const;
  void addPage();
  void addStream();
  void addActions();
  void addSnapshot();

  Controls& _controls;
  Broadcast& _broadcast;
  const std::string _address;
  const std::string _token;
  int _port = 0;
  std::mutex _snapshotLock;
};

}  // namespace brvhost

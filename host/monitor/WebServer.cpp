#include "monitor/WebServer.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

#include <array>
#include <thread>
#include <utility>

#include "common/Failure.h"
#include "monitor/Connection.h"
#include "monitor/Site.h"

namespace brvhost {

namespace {

constexpr std::size_t Threads = 16, MostConnections = 48;

thread_local bool isTooMuch = false;  ///< for the connection that is dealt with

/// As many connections at a time as there are threads, and some that wait; others are closed.
class Threadpool : public httplib::ThreadPool {
 public:
  Threadpool() : ThreadPool(Threads) {}

  void enqueue(std::function<void()> work) override {
    if (_connections >= MostConnections) {
      isTooMuch = true;
      work();
      isTooMuch = false;
      return;
    }
    ++_connections;
    ThreadPool::enqueue([this, work = std::move(work)] {
      work();
      --_connections;
    });
  }

 private:
  std::atomic<std::size_t> _connections = 0;
};

/// Has all done on the main thread.
class QueuedControls : public Controls {
 public:
  QueuedControls(Wall& wall, WorkQueue& queue) : _wall(wall), _queue(queue) {}

  nlohmann::ordered_json settings(const std::string& source) override {
    return _queue.run([this, source] { return _wall.settings(source); });
  }
  nlohmann::ordered_json apply(const std::string& source, const std::string& parameter, int index) override {
    return _queue.run([this, source, parameter, index] {
      _wall.apply(source, parameter, index);
      return _wall.settings(source);
    });
  }
  brv::Frame picture(const std::string& source) override {
    return _queue.run([this, source] { return _wall.picture(source); });
  }
  std::string record(const std::string& source, const std::string& ending) override {
    return _queue.run([this, source, ending] { return _wall.record(source, ending); });
  }
  std::string endRecording(const std::string& source) override {
    return _queue.run([this, source] { return _wall.endRecording(source); });
  }

 private:
  Wall& _wall;
  WorkQueue& _queue;
};

/// By which other machines know this one, those of IPv6 among them where asked for. Links of their own, fe80::, are
/// left out: no browser takes them.
std::vector<std::string> networkAddresses(bool withIPv6) {
  std::vector<std::string> addresses;
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return addresses;
  for (const ifaddrs* each = first; each; each = each->ifa_next) {
    const int family = each->ifa_addr ? each->ifa_addr->sa_family : AF_UNSPEC;
    if ((each->ifa_flags & IFF_UP) == 0 || (each->ifa_flags & IFF_LOOPBACK) != 0) continue;
    if (family != AF_INET && !(withIPv6 && family == AF_INET6)) continue;
    const socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    std::array<char, NI_MAXHOST> text{};
    if (::getnameinfo(each->ifa_addr, size, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0) continue;
    const std::string address = text.data();
    if (!address.starts_with("fe80:")) addresses.push_back(address);
  }
  ::freeifaddrs(first);
  return addresses;
}

}  // namespace

struct WebServer::Listener : Site {
  Listener(Controls& controls, Broadcast& broadcast, const std::string& address) : Site(controls, broadcast, address) {
    new_task_queue = [] { return new Threadpool; };
    set_socket_options([](socket_t socket) {
      const int yes = 1;
      ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
  }

  /// One request for each connection.
  bool process_and_close_socket(socket_t socket) override {
    if (isTooMuch) return ::close(socket), false;  // without a farewell: the next one is waiting
    Connection connection(socket, isEnding);
    bool isClosed = false;
    return process_request(connection, true, isClosed, nullptr);
  }

  std::atomic<bool> isEnding = false;
  std::thread listening;
};

WebServer::WebServer(Wall& wall, Broadcast& broadcast, WorkQueue& queue, const std::string& address, int port)
    : _broadcast(broadcast),
      _queue(queue),
      _address(address),
      _controls(std::make_unique<QueuedControls>(wall, queue)),
      _listener(std::make_unique<Listener>(*_controls, broadcast, address)) {
  const int bound = port == 0                                ? _listener->bind_to_any_port(address)
                    : _listener->bind_to_port(address, port) ? port
                                                             : 0;
  if (bound <= 0) throw Failure("cannot listen at " + address + formatted(", port %d", port));
  _listener->setPort(bound);
  _listener->listening = std::thread([this] { _listener->listen_after_bind(); });
}

WebServer::~WebServer() {
  _listener->isEnding = true;
  _broadcast.close();
  _queue.close();
  while (!_listener->is_running()) std::this_thread::yield();  // or stop has no effect
  _listener->stop();
  _listener->listening.join();
}

std::vector<std::string> WebServer::urls() const {
  if (_address != "0.0.0.0" && _address != "::") return {_listener->url(_address)};
  std::vector<std::string> urls{_listener->url("127.0.0.1")};
  for (const std::string& address : networkAddresses(_address == "::")) urls.push_back(_listener->url(address));
  return urls;
}

}  // namespace brvhost

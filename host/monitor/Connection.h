#pragma once

// One connection of the web server. A request has to come within some seconds and a bound on its size, however it is
// cut into pieces, and who takes nothing of the answer for some seconds is given up. Included where httplib.h is.

#include <fcntl.h>
#include <httplib.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>

namespace brvhost {

class Connection : public httplib::Stream {
 public:
  /// Owns the socket. `isEnding`, which lives on: whether to give up at once.
  Connection(int socket, const std::atomic<bool>& isEnding) : _socket(socket), _isEnding(isEnding) {
    ::fcntl(_socket, F_SETFL, ::fcntl(_socket, F_GETFL) | O_NONBLOCK);
    ::setsockopt(_socket, SOL_SOCKET, SO_SNDBUF, &BytesUnderway, sizeof BytesUnderway);
  }
  /// Lets a peer that still sends read the answer first.
  ~Connection() override {
    ::shutdown(_socket, SHUT_WR);
    std::array<char, 4096> rest;
    for (int i = 0; i < 32 && waitFor(POLLIN, Clock::now() + Farewell); ++i) {
      if (::recv(_socket, rest.data(), rest.size(), 0) <= 0) break;
    }
    ::close(_socket);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_readable() const override { return _read < _filled || waitFor(POLLIN, _deadline); }
  bool is_writable() const override { return waitFor(POLLOUT, Clock::now() + WriteTime); }

  ssize_t read(char* bytes, std::size_t size) override {
    if (_read == _filled) {
      if (_received > MostBytes || !waitFor(POLLIN, _deadline)) return -1;
      const ssize_t count = ::recv(_socket, _buffer.data(), _buffer.size(), 0);
      if (count <= 0) return count;
      _read = 0;
      _filled = static_cast<std::size_t>(count);
      _received += _filled;
    }
    const std::size_t count = std::min(size, _filled - _read);
    std::copy_n(_buffer.data() + _read, count, bytes);
    _read += count;
    return static_cast<ssize_t>(count);
  }

  ssize_t write(const char* bytes, std::size_t size) override {
    if (!is_writable()) return -1;
    const ssize_t count = ::send(_socket, bytes, size, MSG_NOSIGNAL);
    return count < 0 && errno == EAGAIN ? 0 : count;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override { tell(::getpeername, ip, port); }
  void get_local_ip_and_port(std::string& ip, int& port) const override { tell(::getsockname, ip, port); }
  socket_t socket() const override { return _socket; }

 private:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds RequestTime{5}, WriteTime{5};
  static constexpr std::chrono::milliseconds Farewell{100}, LookTime{100};
  static constexpr std::size_t MostBytes = 96 << 10;
  static constexpr int BytesUnderway = 256 << 10;  // what a slow viewer is behind by

  bool waitFor(short events, Clock::time_point deadline) const {
    while (!_isEnding) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return false;
      pollfd polled{_socket, events, 0};
      const int found = ::poll(&polled, 1, static_cast<int>(std::min(left, LookTime).count()));
      if (found < 0 && errno != EINTR) return false;
      if (found > 0) return (polled.revents & events) != 0;
    }
    return false;
  }

  void tell(int (*nameOf)(int, sockaddr*, socklen_t*), std::string& ip, int& port) const {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> service{};
    if (nameOf(_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return;
    if (::getnameinfo(reinterpret_cast<sockaddr*>(&address), size, host.data(), host.size(), service.data(),
                      service.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
      return;
    }
    ip = host.data();
    port = std::atoi(service.data());
  }

  const int _socket;
  const std::atomic<bool>& _isEnding;
  const Clock::time_point _deadline = Clock::now() + RequestTime;
  std::array<char, 4096> _buffer{};
  std::size_t _read = 0, _filled = 0, _received = 0;
};

}  // namespace brvhost

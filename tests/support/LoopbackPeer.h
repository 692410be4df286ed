#pragma once

// The other end of a TCP connection, on a loopback address, with manners of a test's choice.

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

class LoopbackPeer {
 public:
  enum Manner {
    Refuses,
    IsSilent,  ///< Its line of callers is full: one more gets neither an acceptance nor a refusal.
    Answers    ///< Runs the script with its first caller, on a thread of its own, and hangs up.
  };
  using Script = std::function<void(int connection)>;

  explicit LoopbackPeer(Manner manner, Script script = {}, const char* address = "127.0.0.1", int port = 0) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* own = nullptr;
    getaddrinfo(address, std::to_string(port).c_str(), &hints, &own);
    _listener = ::socket(own->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // On the port of an earlier one, whose connections the system remembers for a while.
    const int isWanted = 1;
    ::setsockopt(_listener, SOL_SOCKET, SO_REUSEADDR, &isWanted, sizeof isWanted);
    _isBound = ::bind(_listener, own->ai_addr, own->ai_addrlen) == 0;
    ::getsockname(_listener, own->ai_addr, &own->ai_addrlen);
    _port = ntohs(reinterpret_cast<sockaddr_in*>(own->ai_addr)->sin_port);  // In the same place for IPv6.
    if (manner != Refuses) ::listen(_listener, 0);
    if (manner == IsSilent) {
      _onlyCaller = ::socket(own->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
      EXPECT_EQ(::connect(_onlyCaller, own->ai_addr, own->ai_addrlen), 0);
    }
    freeaddrinfo(own);
    if (manner == Answers) _thread = std::thread([this, script] { answer(script); });
  }
  LoopbackPeer(const LoopbackPeer&) = delete;
  LoopbackPeer& operator=(const LoopbackPeer&) = delete;

  /// Waits for the end of the script, if somebody called.
  ~LoopbackPeer() {
    ::shutdown(_listener, SHUT_RDWR);
    if (_thread.joinable()) _thread.join();
    ::close(_listener);
    if (_onlyCaller >= 0) ::close(_onlyCaller);
  }

  /// False where the port is not for this user: those below 1024 are not for everybody.
  bool isBound() const { return _isBound; }
  unsigned short port() const { return _port; }

  /// Returns early when the caller hangs up.
  static void say(int connection, std::string_view text) {
    ssize_t sent = 0;
    for (; !text.empty() && sent >= 0; text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0))))
      sent = ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
  }

  /// What arrives, up to `length` bytes or the end of the connection.
  static std::string hear(int connection, std::size_t length = std::string::npos) {
    std::string text;
    char part[4096];
    ssize_t count = 1;
    while (count > 0 && text.size() < length) {
      count = ::recv(connection, part, std::min(sizeof part, length - text.size()), 0);
      text.append(part, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return text;
  }

  /// Lets time pass. False at once when the caller has hung up.
  static bool dawdle(int connection, int milliseconds) {
    pollfd end{connection, POLLRDHUP, 0};
    return ::poll(&end, 1, milliseconds) == 0;
  }

 private:
  void answer(const Script& script) {
    const int connection = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return;
    script(connection);
    ::close(connection);
  }

  int _listener = -1, _onlyCaller = -1;
  bool _isBound = false;
  unsigned short _port = 0;
  std::thread _thread;
};

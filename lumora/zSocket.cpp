#include <lumora/zSocket.h>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Result = zSocket::Result;

Result resultOf(int systemError) noexcept {
  switch (systemError) {
    case ECONNREFUSED:
      return Result::Refused;
    case ENETUNREACH:
    case ENETDOWN:
    case EHOSTUNREACH:
    case EHOSTDOWN:
    case EADDRNOTAVAIL:
    case EAFNOSUPPORT:
      return Result::Unreachable;
    case ETIMEDOUT:
      return Result::TimedOut;
    case EPIPE:
    case ECONNRESET:
    case ECONNABORTED:
      return Result::Closed;
    case ENOMEM:
    case ENOBUFS:
      return Result::OutOfMemory;
    default:
      return Result::Failed;
  }
}

class Descriptor {
 public:
  explicit Descriptor(int number = -1) noexcept : _number(number) {}
  Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_number, other._number);
    return *this;
  }
  ~Descriptor() {
    if (isOpen()) ::close(_number);
  }

  bool isOpen() const noexcept { return _number >= 0; }
  int number() const noexcept { return _number; }

 private:
  int _number;
};

struct AddressListDeleter {
  void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

Result resolve(const char* host, unsigned short port, AddressList& addresses) noexcept {
  char service[8] = {};
  std::to_chars(std::begin(service), std::end(service) - 1, port);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;

  addrinfo* list = nullptr;
  switch (getaddrinfo(host, service, &hints, &list)) {
    case 0:
      addresses.reset(list);
      return Result::Success;
    case EAI_MEMORY:
      return Result::OutOfMemory;
    case EAI_SYSTEM:
      return errno == ENOMEM ? Result::OutOfMemory : Result::Failed;
    default:
      return Result::UnknownHost;
  }
}

/// Looks at least once, also when the deadline has passed already.
Result waitUntilReady(const Descriptor& descriptor, short events, Clock::time_point deadline) noexcept {
  while (true) {
    const auto remaining = std::max(std::chrono::ceil<milliseconds>(deadline - Clock::now()), milliseconds::zero());
    pollfd entry{descriptor.number(), events, 0};
    const int ready = poll(&entry, 1, static_cast<int>(remaining.count()));
    if (ready > 0) return Result::Success;
    if (ready == 0) return Result::TimedOut;
    if (errno != EINTR) return resultOf(errno);
  }
}

Result connectTo(const addrinfo& address, Clock::time_point deadline, Descriptor& connection) noexcept {
  Descriptor descriptor(
      ::socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol));
  if (!descriptor.isOpen()) return resultOf(errno);

  if (::connect(descriptor.number(), address.ai_addr, address.ai_addrlen) != 0) {
    // Interrupted or not, the system goes on connecting.
    if (errno != EINPROGRESS && errno != EINTR) return resultOf(errno);
    const Result ready = waitUntilReady(descriptor, POLLOUT, deadline);
    if (ready != Result::Success) return ready;
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(descriptor.number(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) return resultOf(errno);
    if (error != 0) return resultOf(error);
  }
  connection = std::move(descriptor);
  return Result::Success;
}

Result connectToOneOf(const addrinfo* addresses, Clock::time_point deadline, Descriptor& connection) noexcept {
  int untried = 0;
  for (const addrinfo* address = addresses; address; address = address->ai_next) ++untried;

  Result result = Result::UnknownHost;
  for (const addrinfo* address = addresses; address; address = address->ai_next, --untried) {
    const auto now = Clock::now();
    result = connectTo(*address, now + (deadline - now) / untried, connection);
    if (result == Result::Success) break;
  }
  return result;
}

/// Repeats `transferFrom`, which sends or receives what it can from a position on, until `length` bytes are through.
template <typename Operation>
Result transfer(const Descriptor& descriptor, short events, unsigned int length, unsigned int& count,
                Clock::time_point deadline, Operation transferFrom) noexcept {
  while (count < length) {
    const ssize_t moved = transferFrom(count);
    if (moved == 0) return Result::Closed;
    if (moved > 0) {
      count += static_cast<unsigned int>(moved);
      if (count == length) return Result::Success;
    } else if (errno == ETIMEDOUT) {
      return Result::Closed;  // The system gave the connection up; this call's own time is another matter.
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return resultOf(errno);
    }
    // A peer that is always ready for a little more would otherwise draw the call out.
    if (Clock::now() >= deadline) return Result::TimedOut;
    const Result ready = waitUntilReady(descriptor, events, deadline);
    if (ready != Result::Success) return ready;
  }
  return Result::Success;
}

Clock::time_point deadlineAfter(int timeoutMilliseconds) noexcept {
  return Clock::now() + milliseconds(timeoutMilliseconds);
}

class TcpSocket final : public zSocket {
 public:
  void Destroy() noexcept override { delete this; }

  int SetNoDelay(int enabled) noexcept override {
    _noDelay = enabled != 0;
    return _connection.isOpen() ? ApplyNoDelay() : Success;
  }

  int Connect(const char* host, unsigned short port, int timeoutMilliseconds) noexcept override {
    _connection = Descriptor();
    if (!host || host[0] == '\0' || strnlen(host, NI_MAXHOST) == NI_MAXHOST) return InvalidArgument;
    if (port == 0 || timeoutMilliseconds < 0) return InvalidArgument;

    AddressList addresses;
    Result result = resolve(host, port, addresses);
    if (result == Success) result = connectToOneOf(addresses.get(), deadlineAfter(timeoutMilliseconds), _connection);
    if (result == Success) result = ApplyNoDelay();
    if (result != Success) _connection = Descriptor();
    return result;
  }

  int Send(const void* data, unsigned int length, unsigned int& sent, int timeoutMilliseconds) noexcept override {
    sent = 0;
    if ((!data && length > 0) || timeoutMilliseconds < 0) return InvalidArgument;
    if (!_connection.isOpen()) return NotConnected;

    const auto* bytes = static_cast<const std::byte*>(data);
    return transfer(_connection, POLLOUT, length, sent, deadlineAfter(timeoutMilliseconds),
                    [=, this](unsigned int from) {
                      return ::send(_connection.number(), bytes + from, length - from, MSG_NOSIGNAL);
                    });
  }

  int SetRecvTimeout(int timeoutMilliseconds) noexcept override {
    if (timeoutMilliseconds < 0) return InvalidArgument;
    _recvTimeoutMilliseconds = timeoutMilliseconds;
    return Success;
  }

  int Receive(void* buffer, unsigned int length, unsigned int& received) noexcept override {
    received = 0;
    if (!buffer && length > 0) return InvalidArgument;
    if (!_connection.isOpen()) return NotConnected;

    auto* bytes = static_cast<std::byte*>(buffer);
    return transfer(
        _connection, POLLIN, length, received, deadlineAfter(_recvTimeoutMilliseconds),
        [=, this](unsigned int from) { return ::recv(_connection.number(), bytes + from, length - from, 0); });
  }

 private:
  Result ApplyNoDelay() noexcept {
    const int value = _noDelay ? 1 : 0;
    const bool applied = ::setsockopt(_connection.number(), IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0;
    return applied ? Success : resultOf(errno);
  }

  Descriptor _connection;
  bool _noDelay = false;
  int _recvTimeoutMilliseconds = DefaultRecvTimeoutMilliseconds;
};

}  // namespace

zSocket* zSocket::Factory() noexcept {
  return new (std::nothrow) TcpSocket;
}

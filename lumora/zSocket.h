#pragma once

// A TCP client whose every wait has an end. The operations block their caller; none throws, raises a signal or is ended
// by one. A socket is used by one thread at a time; different sockets know nothing of each other.

#include <memory>

class zSocket {
 public:
  /// What the operations return.
  enum Result : int {
    Success = 0,
    InvalidArgument,  ///< A null pointer, an empty or overlong host name, port 0, a negative timeout.
    UnknownHost,      ///< The name does not resolve.
    Unreachable,      ///< No route to the host.
    Refused,          ///< The host is there, and nobody listens on the port.
    TimedOut,         ///< The time was up first. An existing connection stays usable.
    NotConnected,     ///< No `Connect` has succeeded yet, or the last one failed.
    Closed,           ///< The peer closed the connection, reset it, or is gone.
    OutOfMemory,
    Failed,  ///< Anything else: no descriptors left, forbidden by the system's administrator.
  };

  /// How long `Receive` of a new socket waits.
  static constexpr int DefaultRecvTimeoutMilliseconds = 5000;

  zSocket() = default;
  zSocket(const zSocket&) = delete;
  zSocket& operator=(const zSocket&) = delete;

  /// A new socket without a connection, owned by the caller, who gives it back with `Destroy`; null when memory ran
  /// out.
  static zSocket* Factory() noexcept;

  /// Closes the connection and frees the object, which nobody may use any more.
  virtual void Destroy() noexcept = 0;

  /// With any value but 0, what is sent leaves at once; with 0, as at first, small pieces may wait to be joined. Short
  /// questions and answers want 1. Holds for the connection there is and for later ones.
  virtual int SetNoDelay(int enabled) noexcept = 0;

  /// Connects to `host`, a name or a numeric address (IPv6 without brackets), in place of the connection there was,
  /// which is closed in any case. All addresses of a name are tried in the resolver's order, each with an even share
  /// of the time that is left, so that one that never answers does not keep the others from their turn; when none
  /// accepts, the result is that of the last. The timeout covers connecting alone: looking a name up blocks for as long
  /// as the system's resolver does, numeric addresses need no look-up. With 0 only what succeeds at once does.
  virtual int Connect(const char* host, unsigned short port, int timeoutMilliseconds) noexcept = 0;

  /// Sends `length` bytes, in as many pieces as it takes, within one timeout for all of them. `sent` counts the bytes
  /// that were handed to the system, whatever the result: all of them with `Success`; otherwise a later call may go on
  /// from there.
  virtual int Send(const void* data, unsigned int length, unsigned int& sent, int timeoutMilliseconds) noexcept = 0;

  /// How long each later `Receive` waits. 0 takes only what has arrived.
  virtual int SetRecvTimeout(int timeoutMilliseconds) noexcept = 0;

  /// Receives up to `length` bytes, in as many pieces as they arrive in, within one timeout for all of them. `Success`
  /// means that all arrived. With `TimedOut` or `Closed` there may be fewer: `received` counts the bytes in `buffer`,
  /// whatever the result. Bytes beyond `length` wait for the next call.
  virtual int Receive(void* buffer, unsigned int length, unsigned int& received) noexcept = 0;

 protected:
  ~zSocket() = default;
};

/// Holds a socket for the length of a scope; null when there was no memory for one.
struct zSocketDestroyer {
  void operator()(zSocket* socket) const noexcept { socket->Destroy(); }
};
using zSocketHolder = std::unique_ptr<zSocket, zSocketDestroyer>;

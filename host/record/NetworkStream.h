#pragma once

// A connection over which a recording goes. It is there before the source starts: nothing is taken, and lost, while
// nobody listens.

#include <functional>
#include <string>

struct AVIOContext;

namespace brvhost {

class NetworkStream {
 public:
  /// Waits until the other side is there, as long as the protocol does, and no longer than until `isInterrupted`, which
  /// also ends writing that cannot go on. Throws Failure.
  NetworkStream(const std::string& url, std::function<bool()> isInterrupted);
  ~NetworkStream();
  NetworkStream(const NetworkStream&) = delete;
  NetworkStream& operator=(const NetworkStream&) = delete;

  AVIOContext* get() const { return _channel; }

 private:
  const std::function<bool()> _isInterrupted;
  AVIOContext* _channel = nullptr;
};

}  // namespace brvhost

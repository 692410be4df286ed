#pragma once

// What the tests plug into their server. Each thing has a connection and a thread of its own, as a piece of hardware
// has.

#include <pipewire/pipewire.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace test::pipewire {

using Properties = std::map<std::string, std::string>;

/// ns on the monotonic clock.
std::int64_t now();

/// A connection to the server and the thread that serves it.
class Client {
 public:
  Client();
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Nothing of this connection runs during `action`.
  void locked(const std::function<void()>& action) const;
  pw_loop* loop() const { return pw_thread_loop_get_loop(_loop); }
  pw_core* core() const { return _core; }

 private:
  pw_thread_loop* _loop;
  pw_context* _context;
  pw_core* _core;
};

/// A node or a device that the server makes by one of its factories, as session managers ask it to.
class ServerObject {
 public:
  /// "factory.name" is the plug-in's.
  ServerObject(const std::string& factory, const Properties& properties);
  ~ServerObject();
  std::string id() const;

 private:
  Client _client;
  pw_proxy* _proxy = nullptr;
};

/// A stream of this process that offers itself as a device.
class Stream {
 public:
  virtual void plug() = 0;
  /// As if its cable were pulled; no-op without one.
  void pull();
  /// Counts up wherever what it sends begins anew: nobody can tell what was lost there.
  std::uint64_t run() const { return _run; }

 protected:
  virtual ~Stream() = default;  ///< after `pull`

  /// Returns when the server has it. `formats` live during the call.
  void plug(const Properties& properties, int flags, std::vector<const spa_pod*> formats);
  /// Calls `tick` every so many nanoseconds, beginning now; 0 for not at all.
  void setPeriod(std::int64_t nanoseconds);
  void update(std::vector<const spa_pod*> params);
  const Client& client() const { return *_client; }
  pw_stream* stream() const { return _stream; }

  // On the stream's thread.
  virtual void formatChosen(const spa_pod& /*format*/) {}
  virtual void streamingChanged(bool /*isStreaming*/) {}
  virtual void tick() {}
  virtual void process() = 0;

 private:
  std::unique_ptr<Client> _client;
  pw_stream* _stream = nullptr;
  spa_hook _listener{};
  spa_source* _timer = nullptr;
  std::atomic<std::uint64_t> _run{0};
};

}  // namespace test::pipewire

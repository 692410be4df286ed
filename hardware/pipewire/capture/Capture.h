#pragma once

// One run of a device: a connection, a stream from the device's node, and the lane on which its samples come. While the
// device cannot deliver, it says why, and tries again each second.

#include <Hardware.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "capture/Admission.h"
#include "capture/NodeWatch.h"
#include "capture/StreamHandler.h"
#include "server/Connection.h"
#include "server/EventLoop.h"

namespace hardware::pipewire {

class Capture : public std::enable_shared_from_this<Capture> {
 public:
  /// What is captured: `serial` is the node's.
  struct Target {
    std::string name;
    std::string serial;
  };

  Capture(Target target, Sink& sink, std::shared_ptr<Capture> former);
  ~Capture();

  Admission& admission() { return _admission; }
  EventLoop& loop() { return _loop; }

  /// Starts the lane, once `handler` has been made.
  void begin(std::unique_ptr<StreamHandler> handler);

  /// Calls `change` on the lane, then asks for what the handler wants now.
  void reconfigure(std::function<void(StreamHandler&)> change);

  /// From now on no call of the sink begins, and the device is let go of soon. Any thread.
  void cease();

  /// After `cease`: waits for the call of the sink in progress. Not from within it.
  void end();

  /// Whether the caller is in a call of the sink. Any thread.
  bool isCurrent() const { return _loop.isCurrent() || (_former && _former->isCurrent()); }

 private:
  void open();
  void close();
  void tryAgain();
  void openStream();
  void closeStream();
  bool hasBegun() const { return _admission.lastSample > _waitingSince; }
  runtime::Nanoseconds patience() const;
  void linkChanged(const NodeWatch::State& state);
  void checkProgress();
  void fail(std::string_view reason, runtime::Nanoseconds untilNextTry = 1'000'000'000);

  const Target _target;
  Sink& _sink;
  /// One that was stopped from its own sink's call, and may still be in it: its calls come first.
  const std::shared_ptr<Capture> _former;
  Admission _admission;
  EventLoop _loop;
  Signal _end;
  std::mutex _endLock;

  // The lane's own.
  std::unique_ptr<StreamHandler> _handler;
  std::optional<Timer> _progress;
  std::optional<Timer> _retry;
  std::optional<Connection> _connection;
  std::optional<NodeWatch> _node;
  pw_stream* _stream = nullptr;
  spa_hook _streamListener{};
  bool _isConnectionLost = false;
  bool _hasError = false;  ///< of the stream or its link, which do not go on after one
  bool _isLinked = false, _wasLinked = false;
  runtime::Nanoseconds _waitingSince = 0;
  std::string _toldReason;
  runtime::Nanoseconds _toldAt = 0;
  runtime::Nanoseconds _failedAt = 0;
  int _triesInVain = 0;  ///< since the last sample
};

}  // namespace hardware::pipewire

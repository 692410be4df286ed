#pragma once

// Who hears of a provider's devices: a handler and the calls of it that are under way. Handlers are called without a
// lock, so replacing one means waiting for those calls, but for the ones that the replacing thread itself is in.

#include <Hardware.h>
#include <runtime/Scheduler.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace hardware {

class DeviceListener {
 public:
  explicit DeviceListener(Provider::EventHandler handler) : _handler(std::move(handler)) {
    _callers.reserve(8);  // so that a device can leave when memory is short, too
  }

  /// Calls the handler, unless it is retired.
  void call(DeviceEvent event, const std::shared_ptr<Device>& device) {
    {
      std::lock_guard lock(_mutex);
      if (_isRetired) return;
      _callers.push_back(std::this_thread::get_id());
    }
    _handler(event, device);
    {
      std::lock_guard lock(_mutex);
      _callers.erase(std::find(_callers.begin(), _callers.end(), std::this_thread::get_id()));
    }
    _callEnded.signal();
  }

  /// Afterwards the handler is not running and will not run.
  void retire() {
    {
      std::lock_guard lock(_mutex);
      _isRetired = true;
    }
    while (isCalledElsewhere()) _callEnded.wait();
  }

 private:
  bool isCalledElsewhere() {
    std::lock_guard lock(_mutex);
    return std::any_of(_callers.begin(), _callers.end(), [](auto id) { return id != std::this_thread::get_id(); });
  }

  const Provider::EventHandler _handler;
  std::mutex _mutex;
  bool _isRetired = false;
  std::vector<std::thread::id> _callers;
  runtime::Event _callEnded;
};

}  // namespace hardware

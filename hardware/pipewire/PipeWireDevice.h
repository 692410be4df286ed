#pragma once

// A camera or microphone of PipeWire's. Running, it has a connection and a lane of its own, so that one slow sink holds
// up no other device.

#include <Hardware.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "listing/Catalog.h"

namespace hardware::pipewire {

class Capture;

class PipeWireDevice final : public Device {
 public:
  /// `onStop` is called each time that it has stopped, on the thread that stopped it.
  PipeWireDevice(ListedDevice listed, std::function<void()> onStop);
  ~PipeWireDevice() override;

  const ListedDevice& listed() const { return _listed; }
  const DeviceDescription& description() const override { return _listed.description; }

  std::optional<std::string> openFailure() override;
  std::optional<std::string> configurationFailure() override { return std::nullopt; }
  void selectVideoFormat(std::size_t index, CMTime frameDuration) override;
  void selectAudioFormat(std::size_t index) override;
  void start(Sink& sink) override;
  void stop() override;
  void sinkHasRoom() override {}

  /// Stops for good: the device is no longer there.
  void unplug();

  bool isRunning();

 private:
  std::shared_ptr<Capture> makeCapture(Sink& sink, std::shared_ptr<Capture> former) const;

  const ListedDevice _listed;
  const std::function<void()> _onStop;

  std::mutex _mutex;  ///< guards what follows; never held while a call of the sink is waited for
  bool _isUnplugged = false;
  bool _isRunning = false;
  std::size_t _format = 0;
  CMTime _frameDuration{};
  /// Also after a stop from its own call of the sink, until that is over.
  std::shared_ptr<Capture> _capture;
};

}  // namespace hardware::pipewire

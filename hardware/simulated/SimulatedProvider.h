#pragma once

// The machine of a rig: its devices, its FireWire bus, and the script by which devices come and go.

#include <Hardware.h>
#include <runtime/Scheduler.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "../DeviceListener.h"
#include "Rig.h"
#include "SimulatedDevice.h"

namespace hardware::simulated {

/// Any thread may call it; the plugging calls are meant for one thread at a time: of two at once for one device, nobody
/// can say whose event comes last.
class Provider final : public hardware::Provider, private runtime::LaneClient {
 public:
  /// A device that plays a clip and has no formats takes the clip's.
  /// `origin` is where the rig comes from, for display.
  explicit Provider(Rig rig, std::string origin = "a rig");
  ~Provider() override;

  std::vector<std::shared_ptr<Device>> devices() override;
  void setEventHandler(EventHandler handler) override;
  FireWireBus fireWireBus() override;
  std::string origin() override { return _origin; }

  /// Plugs a device of the rig in: it appears after the others, as a new Device, and the handler has been called when
  /// this returns. False when it is plugged in already or no device of the rig.
  bool plug(std::string_view uniqueID);

  /// Pulls a device out: it has stopped, is listed no more, and the handler has been called when this returns. Called
  /// from a call of the device's own sink, that call is the last. False when it is not plugged in.
  bool unplug(std::string_view uniqueID);

  /// The device if it is plugged in now, else null.
  std::shared_ptr<SimulatedDevice> device(std::string_view uniqueID);

 private:
  runtime::Nanoseconds nextItemTime() override;
  void runNextItem() override;

  std::shared_ptr<SimulatedDevice> find(std::string_view uniqueID) const;
  bool add(std::shared_ptr<SimulatedDevice> device);
  void notify(DeviceEvent event, const std::shared_ptr<Device>& device);

  Rig _rig;  // unchanged after construction
  const std::string _origin;
  const runtime::Nanoseconds _epoch;

  std::mutex _mutex;  // guards the two below; never held while someone else is called
  std::vector<std::shared_ptr<SimulatedDevice>> _pluggedIn;
  std::shared_ptr<DeviceListener> _listener;

  std::size_t _nextEvent = 0;  // of the script; its lane's own
  std::unique_ptr<runtime::Lane> _scriptLane;
};

}  // namespace hardware::simulated

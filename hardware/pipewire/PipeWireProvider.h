#pragma once

// The cameras and microphones that this machine's PipeWire server knows. The server is looked for until it is there,
// and again when it ends: its devices leave with it, and come back with it.

#include <Hardware.h>
#include <runtime/Scheduler.h>

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "../DeviceListener.h"
#include "PipeWireDevice.h"
#include "server/Connection.h"
#include "server/EventLoop.h"
#include "server/ServerMirror.h"

namespace hardware::pipewire {

class PipeWireProvider final : public Provider, public std::enable_shared_from_this<PipeWireProvider> {
 public:
  PipeWireProvider();
  ~PipeWireProvider() override;

  /// These three begin to look for the server when they are first called, and wait until what is there is known; for a
  /// second at most, should the server not answer.
  bool canListDevices() override;
  std::vector<std::shared_ptr<Device>> devices() override;
  std::vector<UnofferedDevice> unofferedDevices() override;

  void setEventHandler(EventHandler handler) override;
  FireWireBus fireWireBus() override { return {0, std::vector<FireWireUnit>()}; }
  std::string origin() override { return "PipeWire"; }

 private:
  using Devices = std::vector<std::shared_ptr<PipeWireDevice>>;

  void awaitListing();
  void connect();
  void giveUpListing(std::string_view reason);
  void lose();
  void publish();
  void holdBackSound(const Devices& before, std::vector<ListedDevice>& fresh);
  void setListed();
  void detach(const std::shared_ptr<PipeWireDevice>& device);
  void attach(const std::shared_ptr<PipeWireDevice>& device);
  void notify(DeviceEvent event, const std::shared_ptr<Device>& device);
  Devices present();

  EventLoop _loop;
  Signal _change{_loop, [this] { publish(); }};  ///< a device may have become free to be announced again
  std::once_flag _begun;

  // The lane's own.
  std::optional<Timer> _retry;
  std::optional<Timer> _patience;
  std::optional<Timer> _hold;
  std::optional<Connection> _connection;
  std::optional<ServerMirror> _mirror;
  std::set<std::string> _reasonsGiven;
  std::map<std::string, runtime::Nanoseconds> _heldBack;  ///< since when, by the sources' serials

  std::mutex _mutex;  ///< guards what follows; never held while someone else is called
  bool _isListed = false;
  bool _isConnected = false;
  Devices _devices;
  std::vector<UnofferedDevice> _unoffered;
  std::shared_ptr<DeviceListener> _listener;
  runtime::Event _listed;
};

}  // namespace hardware::pipewire

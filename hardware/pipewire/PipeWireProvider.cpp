#include "PipeWireProvider.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace hardware::pipewire {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;

/// A server that has not told what it has after this time keeps it to itself.
constexpr Nanoseconds LongestSilence = 800'000'000;
constexpr Nanoseconds LongestWaitForCamera = 700'000'000;

namespace {

bool isSource(const PipeWireDevice& device, const ListedDevice& listed) {
  return device.listed().serial == listed.serial;
}

}  // namespace

PipeWireProvider::PipeWireProvider() = default;

PipeWireProvider::~PipeWireProvider() {
  _loop.end();
  setEventHandler(nullptr);
  for (const auto& device : present()) device->unplug();
}

void PipeWireProvider::awaitListing() {
  std::call_once(_begun, [this] {
    _retry.emplace(_loop, [this] {
      lose();
      connect();
    });
    _hold.emplace(_loop, [this] { publish(); });
    _patience.emplace(_loop, [this] { giveUpListing("PipeWire does not answer: this program may not use it"); });
    _loop.call([this] { connect(); });
    const auto close = [this] {
      _mirror.reset();
      _connection.reset();
    };
    _loop.begin("devices", weak_from_this(), close, [this] { _retry->set(NanosecondsPerSecond); });
  });
  const Nanoseconds deadline = runtime::Scheduler::current().now() + NanosecondsPerSecond;
  const auto isListed = [this] {
    std::lock_guard lock(_mutex);
    return _isListed;
  };
  while (!isListed()) {
    if (!runtime::Scheduler::current().wait(_listed, deadline)) return;
    _listed.signal();  // for the next one that waits
  }
}

bool PipeWireProvider::canListDevices() {
  awaitListing();
  std::lock_guard lock(_mutex);
  return _isConnected;
}

std::vector<std::shared_ptr<Device>> PipeWireProvider::devices() {
  awaitListing();
  std::lock_guard lock(_mutex);
  return {_devices.begin(), _devices.end()};
}

std::vector<UnofferedDevice> PipeWireProvider::unofferedDevices() {
  awaitListing();
  std::lock_guard lock(_mutex);
  return _unoffered;
}

void PipeWireProvider::setEventHandler(EventHandler handler) {
  auto listener = handler ? std::make_shared<DeviceListener>(std::move(handler)) : nullptr;
  {
    std::lock_guard lock(_mutex);
    std::swap(_listener, listener);
  }
  if (listener) listener->retire();
}

void PipeWireProvider::connect() {
  _connection.emplace(_loop, Connection::Use::control, [this](std::uint32_t object, int result, std::string_view) {
    if (object != PW_ID_CORE) return;
    if (result == -EPIPE) _retry->set(0);  // not from within the connection's own call
    if (result == -EACCES) giveUpListing("PipeWire refuses this program");
  });
  if (_connection->isOpen()) {
    _mirror.emplace(*_connection, [this] { publish(); });
    _patience->set(LongestSilence);
    return;
  }
  giveUpListing("No PipeWire server is running");
  _retry->set(NanosecondsPerSecond);
}

/// Nothing can be listed for now. Standard error has the reason the first time.
void PipeWireProvider::giveUpListing(std::string_view reason) {
  if (_reasonsGiven.insert(std::string(reason)).second) {
    std::fprintf(stderr, "%.*s. CAPTURE_RIG=demo (brvhost --rig demo) shows the demonstration.\n",
                 static_cast<int>(reason.size()), reason.data());
  }
  setListed();
}

/// What the server had is unplugged.
void PipeWireProvider::lose() {
  _patience->stop();
  _mirror.reset();
  _connection.reset();
  {
    std::lock_guard lock(_mutex);
    _isConnected = false;
    _unoffered.clear();
  }
  for (const auto& device : present()) detach(device);
}

auto PipeWireProvider::present() -> Devices {
  std::lock_guard lock(_mutex);
  return _devices;
}

/// A webcam's sound may come to the server before its pictures do. A source has the name of what came first, by which
/// hosts know it again: new sound of a USB device waits for a moment whether there is a camera to go before it.
void PipeWireProvider::holdBackSound(const Devices& before, std::vector<ListedDevice>& fresh) {
  const Nanoseconds now = runtime::Scheduler::current().now();
  const auto formerly = std::exchange(_heldBack, {});
  std::erase_if(fresh, [&](const ListedDevice& listed) {
    const bool isNew = std::ranges::none_of(before, [&](const auto& device) { return isSource(*device, listed); });
    if (!listed.awaitsCamera || !isNew) return false;
    const auto known = formerly.find(listed.serial);
    const Nanoseconds since = known == formerly.end() ? now : known->second;
    if (now - since >= LongestWaitForCamera) return false;
    _heldBack.emplace(listed.serial, since);
    _hold->set(LongestWaitForCamera);
    return true;
  });
}

/// Lists what the server has now. A device whose formats or links have changed leaves, and comes back with the new; one
/// that is running does so when it stops, since what it sends can be followed until then.
void PipeWireProvider::publish() {
  if (!_mirror || !_mirror->isSettled()) return;  // it will be
  _patience->stop();
  const Devices before = present();
  std::vector<Source> sources = _mirror->sources();
  for (Source& source : sources) {
    for (const auto& device : before) {
      if (device->listed().serial == source.serial) source.knownID = device->description().uniqueID;
    }
  }
  Catalog catalog = catalogOf(sources);
  for (const auto& device : before) {
    const auto isStill = [&](const ListedDevice& listed) {
      return isSameDevice(listed, device->listed()) || (isSource(*device, listed) && device->isRunning());
    };
    const bool isThere =
        std::ranges::any_of(sources, [&](const Source& source) { return source.serial == device->listed().serial; });
    if (std::erase_if(catalog.devices, isStill) == 0 && !(device->isRunning() && isThere)) detach(device);
  }
  std::stable_partition(catalog.devices.begin(), catalog.devices.end(),
                        [](const ListedDevice& listed) { return listed.description.hasVideo; });
  bool isNews;
  {
    std::lock_guard lock(_mutex);
    isNews = _isListed;
    _isConnected = true;
    _unoffered = std::move(catalog.unoffered);
  }
  if (isNews) holdBackSound(before, catalog.devices);
  for (ListedDevice& listed : catalog.devices) {
    attach(std::make_shared<PipeWireDevice>(std::move(listed), [provider = weak_from_this()] {
      if (const auto self = provider.lock()) self->_change.raise();
    }));
  }
  setListed();
}

void PipeWireProvider::setListed() {
  {
    std::lock_guard lock(_mutex);
    if (std::exchange(_isListed, true)) return;
  }
  _listed.signal();
}

void PipeWireProvider::attach(const std::shared_ptr<PipeWireDevice>& device) {
  bool isNews;
  {
    std::lock_guard lock(_mutex);
    _devices.push_back(device);
    isNews = _isListed;  // what is there at first, `devices` tells, for which someone may be waiting under his locks
  }
  if (isNews) notify(DeviceEvent::attached, device);
}

void PipeWireProvider::detach(const std::shared_ptr<PipeWireDevice>& device) {
  device->unplug();
  {
    std::lock_guard lock(_mutex);
    std::erase(_devices, device);
  }
  notify(DeviceEvent::detached, device);
}

// The handler may let go of the provider, which stays until the turn of its lane is over.
void PipeWireProvider::notify(DeviceEvent event, const std::shared_ptr<Device>& device) {
  std::shared_ptr<DeviceListener> listener;
  {
    std::lock_guard lock(_mutex);
    listener = _listener;
  }
  if (listener) listener->call(event, device);
}

}  // namespace hardware::pipewire

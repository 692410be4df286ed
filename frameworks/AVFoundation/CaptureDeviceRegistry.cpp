#include <AVFoundation/CaptureDeviceRegistry.h>
#include <AVFoundation/CaptureStream.h>

#include <algorithm>

CaptureDeviceRegistry& CaptureDeviceRegistry::shared() {
  // Never destroyed: devices may be asked for, or come and go, until the very end of the process.
  static auto* const registry = [] {
    auto* made = new CaptureDeviceRegistry;
    hardware::setProviderChangeHandler([made] { made->forgetProvider(); });
    return made;
  }();
  return *registry;
}

void CaptureDeviceRegistry::prepare() {
  std::lock_guard preparation(_preparation);
  std::shared_ptr<hardware::Provider> provider;
  {
    std::lock_guard lock(_lock);
    if (_provider) return;
    _provider = provider = hardware::systemProvider();
  }
  provider->setEventHandler(
      [this, from = provider.get()](hardware::DeviceEvent event, const std::shared_ptr<hardware::Device>& device) {
        handle(from, event, device);
      });
  attachPresent(provider);
}

/// Enters the devices that are there already. Their events come at the same time; one change waits for the other.
void CaptureDeviceRegistry::attachPresent(const std::shared_ptr<hardware::Provider>& provider) {
  std::lock_guard changes(_changes);
  for (const auto& device : provider->devices()) {
    Ref<AVCaptureDevice> object;
    {
      std::lock_guard lock(_lock);
      if (_provider != provider) return;
      Entry& entry = entryFor(device->description());
      entry.isConnected = true;
      object = entry.device;
    }
    object->attach(device);
    std::unique_lock lock(_lock);
    if (_provider == provider) continue;
    lock.unlock();
    object->detach();  // the provider has been replaced meanwhile
    return;
  }
}

/// The provider's handler may be running, and wait for devices to be listed, while it is retired.
void CaptureDeviceRegistry::forgetProvider() {
  std::shared_ptr<hardware::Provider> provider;
  std::vector<Entry> entries;
  {
    std::lock_guard lock(_lock);
    provider = std::exchange(_provider, nullptr);
    entries = std::exchange(_entries, {});
  }
  if (provider) provider->setEventHandler(nullptr);
  for (const Entry& entry : entries) entry.device->detach();
}

std::vector<Ref<AVCaptureDevice>> CaptureDeviceRegistry::devices() {
  prepare();
  std::lock_guard lock(_lock);
  std::vector<Ref<AVCaptureDevice>> listed;
  for (const Entry& entry : _entries) {
    if (isListed(entry)) listed.push_back(entry.device);
  }
  return listed;
}

std::shared_ptr<hardware::Provider> CaptureDeviceRegistry::provider() {
  prepare();
  std::lock_guard lock(_lock);
  return _provider;
}

void CaptureDeviceRegistry::setAllowsScreenCaptureDevices(bool allows) {
  prepare();
  std::vector<Ref<AVCaptureDevice>> changed;
  {
    std::lock_guard lock(_lock);
    if (_allowsScreenCapture == allows) return;
    _allowsScreenCapture = allows;
    for (const Entry& entry : _entries) {
      if (entry.isConnected && entry.isScreenCapture) changed.push_back(entry.device);
    }
  }
  post(allows ? AVCaptureDeviceWasConnectedNotification : AVCaptureDeviceWasDisconnectedNotification, changed);
}

void CaptureDeviceRegistry::handle(const hardware::Provider* provider, hardware::DeviceEvent event,
                                   const std::shared_ptr<hardware::Device>& device) {
  const bool isAttached = event == hardware::DeviceEvent::attached;
  Ref<AVCaptureDevice> object;
  bool isToldOf;
  {
    std::lock_guard changes(_changes);
    {
      std::lock_guard lock(_lock);
      if (_provider.get() != provider) return;
      Entry& entry = entryFor(device->description());
      object = entry.device;
      // What left may have come back already, as another piece of hardware.
      const auto present = object->stream().hardware();
      if (!isAttached && present && present != device) return;
      const bool wasListed = isListed(entry);
      entry.isConnected = isAttached;
      isToldOf = wasListed || isListed(entry);
      // A device that comes back is listed behind the others, as a new one would be.
      const auto position = _entries.begin() + (&entry - _entries.data());
      if (isAttached) std::rotate(position, position + 1, _entries.end());
    }
    if (isAttached) {
      object->attach(device);
    } else {
      object->detach();
    }
  }
  if (isToldOf) {
    post(isAttached ? AVCaptureDeviceWasConnectedNotification : AVCaptureDeviceWasDisconnectedNotification, {object});
  }
  object = {};
  std::lock_guard lock(_lock);
  dropUnused();
}

CaptureDeviceRegistry::Entry& CaptureDeviceRegistry::entryFor(const hardware::DeviceDescription& description) {
  const auto known = std::find_if(_entries.begin(), _entries.end(),
                                  [&](const Entry& entry) { return entry.device->uniqueID() == description.uniqueID; });
  if (known != _entries.end()) return *known;
  return _entries.emplace_back(Entry{makeRef<AVCaptureDevice>(description), description.isScreenCapture, false});
}

/// An object that only the registry holds cannot gain a holder while the lock is held.
void CaptureDeviceRegistry::dropUnused() {
  std::erase_if(_entries, [](const Entry& entry) { return !entry.isConnected && entry.device->retainCount() == 1; });
}

void CaptureDeviceRegistry::post(NSNotificationName name, const std::vector<Ref<AVCaptureDevice>>& devices) {
  for (const auto& device : devices) NSNotificationCenter::defaultCenter().postNotificationName(name, device.get());
}

#include <AVFoundation/CaptureDeviceRegistry.h>
#include <AVFoundation/CaptureStream.h>
#include <Foundation/NSLog.h>

#include <exception>

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
  {
    // Without waiting, since a device may ask for the others while it is being attached.
    std::lock_guard lock(_lock);
    if (_isPrepared) return;
  }
  std::lock_guard preparation(_preparation);
  std::shared_ptr<hardware::Provider> provider;
  {
    std::lock_guard lock(_lock);
    if (_provider) return;
    _provider = provider = hardware::systemProvider();
  }
  try {
    provider->setEventHandler(
        [this, from = provider.get()](hardware::DeviceEvent event, const std::shared_ptr<hardware::Device>& device) {
          handle(from, event, device);
        });
    attachPresent(provider);
  } catch (...) {
    forgetProvider();  // the next one that asks tries again
    throw;
  }
  std::lock_guard lock(_lock);
  _isPrepared = _provider == provider;
}

/// Enters the devices that are there already. Their events come at the same time; one change waits for the other.
void CaptureDeviceRegistry::attachPresent(const std::shared_ptr<hardware::Provider>& provider) {
  std::lock_guard changes(_changes);
  for (const auto& device : provider->devices()) {
    Ref<AVCaptureDevice> object;
    {
      std::lock_guard lock(_lock);
      if (_provider != provider) return;
      object = entryFor(device->description())->device;
    }
    attach(*object, device, provider.get());
  }
}

/// A device is listed only once it can be opened. False when it is not listed.
bool CaptureDeviceRegistry::attach(AVCaptureDevice& object, const std::shared_ptr<hardware::Device>& device,
                                   const hardware::Provider* provider) {
  object.attach(device);
  {
    std::lock_guard lock(_lock);
    if (_provider.get() == provider) {
      const auto entry = entryFor(device->description());
      setConnected(entry, true);
      return isListed(*entry);
    }
  }
  object.detach();
  return false;
}

/// The provider's handler may be running, and wait for devices to be listed, while it is retired.
void CaptureDeviceRegistry::forgetProvider() {
  std::shared_ptr<hardware::Provider> provider;
  Entries entries;
  {
    std::lock_guard lock(_lock);
    provider = std::exchange(_provider, nullptr);
    _isPrepared = false;
    _byID.clear();
    entries.splice(entries.end(), _connected);
    entries.splice(entries.end(), _unplugged);
  }
  if (provider) provider->setEventHandler(nullptr);
  for (const Entry& entry : entries) entry.device->detach();
}

std::vector<Ref<AVCaptureDevice>> CaptureDeviceRegistry::devices() {
  prepare();
  std::lock_guard lock(_lock);
  std::vector<Ref<AVCaptureDevice>> listed;
  listed.reserve(_connected.size());
  for (const Entry& entry : _connected) {
    if (isListed(entry)) listed.push_back(entry.device);
  }
  return listed;
}

std::vector<Ref<AVCaptureDevice>> CaptureDeviceRegistry::devices(const std::vector<std::string>& uniqueIDs) {
  prepare();
  std::lock_guard lock(_lock);
  std::vector<Ref<AVCaptureDevice>> listed;
  for (const std::string& uniqueID : uniqueIDs) {
    const auto found = _byID.find(uniqueID);
    if (found != _byID.end() && isListed(*found->second)) listed.push_back(found->second->device);
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
    for (const Entry& entry : _connected) {
      if (entry.isScreenCapture) changed.push_back(entry.device);
    }
    _allowsScreenCapture = allows;
  }
  const auto name = allows ? AVCaptureDeviceWasConnectedNotification : AVCaptureDeviceWasDisconnectedNotification;
  for (const auto& device : changed) post(name, *device);
}

/// Out of memory, a device that is new is left out until it is plugged in again; one that leaves always leaves.
void CaptureDeviceRegistry::handle(const hardware::Provider* provider, hardware::DeviceEvent event,
                                   const std::shared_ptr<hardware::Device>& device) noexcept try {
  const bool isAttached = event == hardware::DeviceEvent::attached;
  Ref<AVCaptureDevice> object;
  bool isToldOf;
  {
    std::lock_guard changes(_changes);
    {
      std::lock_guard lock(_lock);
      if (_provider.get() != provider) return;
      const auto entry = entryFor(device->description());
      object = entry->device;
      // What left may have come back already, as another piece of hardware.
      const auto present = object->stream().hardware();
      if (!isAttached && present && present != device) return;
      isToldOf = isListed(*entry);
      if (!isAttached) setConnected(entry, false);
    }
    if (isAttached) {
      isToldOf = attach(*object, device, provider);
    } else {
      object->detach();
    }
  }
  if (isToldOf) {
    post(isAttached ? AVCaptureDeviceWasConnectedNotification : AVCaptureDeviceWasDisconnectedNotification, *object);
  }
  object = {};
  std::lock_guard lock(_lock);
  dropUnused();
} catch (const std::exception&) {  // no memory, or no thread
  NSLog("No memory for the device %s", device->description().uniqueID.c_str());
}

CaptureDeviceRegistry::Entries::iterator CaptureDeviceRegistry::entryFor(
    const hardware::DeviceDescription& description) {
  if (const auto known = _byID.find(description.uniqueID); known != _byID.end()) return known->second;
  Entries made{Entry{makeRef<AVCaptureDevice>(description), description.isScreenCapture, false}};
  const auto entry = made.begin();
  _byID.emplace(entry->device->uniqueID(), entry);
  _unplugged.splice(_unplugged.end(), made);
  return entry;
}

/// A device that comes back is listed behind the others, as a new one would be.
void CaptureDeviceRegistry::setConnected(Entries::iterator entry, bool isConnected) {
  Entries& former = entry->isConnected ? _connected : _unplugged;
  Entries& next = isConnected ? _connected : _unplugged;
  entry->isConnected = isConnected;
  next.splice(next.end(), former, entry);
}

/// An object that only the registry holds cannot gain a holder while the lock is held.
void CaptureDeviceRegistry::dropUnused() {
  std::erase_if(_unplugged, [this](const Entry& entry) {
    if (entry.device->retainCount() > 1) return false;
    _byID.erase(entry.device->uniqueID());
    return true;
  });
}

void CaptureDeviceRegistry::post(NSNotificationName name, AVCaptureDevice& device) {
  NSNotificationCenter::defaultCenter().postNotificationName(name, &device);
}

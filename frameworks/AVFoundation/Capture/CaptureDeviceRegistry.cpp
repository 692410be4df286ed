#include <AVFoundation/Capture/CaptureDeviceRegistry.h>

#include <AVFoundation/Capture/CaptureStream.h>
#include <Foundation/NSLog.h>

#include <algorithm>
#include <exception>

// What a device asks of the registry stands here, so that each of the two knows the other in one direction.

std::vector<Ref<AVCaptureDevice>> AVCaptureDevice::devices() {
  return CaptureDeviceRegistry::shared().devices();
}

std::vector<AVCaptureDevice::Unoffered> AVCaptureDevice::unofferedDevices() {
  std::vector<Unoffered> unoffered;
  for (auto& [name, reason] : CaptureDeviceRegistry::shared().provider()->unofferedDevices()) {
    unoffered.push_back({std::move(name), std::move(reason)});
  }
  return unoffered;
}

std::string AVCaptureDevice::devicesOrigin() {
  return CaptureDeviceRegistry::shared().provider()->origin();
}

std::vector<Ref<AVCaptureDevice>> AVCaptureDevice::devicesWithMediaType(AVMediaType mediaType) {
  auto found = devices();
  std::erase_if(found, [&](const Ref<AVCaptureDevice>& device) { return !device->hasMediaType(mediaType); });
  return found;
}

std::vector<Ref<AVCaptureDevice>> AVCaptureDevice::linkedDevices() const {
  std::vector<Ref<AVCaptureDevice>> linked;
  for (const std::string& id : linkedIDs()) {
    if (auto device = CaptureDeviceRegistry::shared().device(id)) linked.push_back(std::move(device));
  }
  return linked;
}

CaptureDeviceRegistry& CaptureDeviceRegistry::shared() {
  // Never destroyed: devices may be asked for, or come and go, until the very end of the process.
  static auto* const registry = [] {
    auto* made = new CaptureDeviceRegistry;
    hardware::setProviderChangeHandler([made] { made->forgetProvider(); });
    return made;
  }();
  return *registry;
}

/// Takes the system's provider into use if that has not happened. Called without the lock.
void CaptureDeviceRegistry::prepare() {
  {
    // Without waiting, since a device may ask for the others while it is being attached.
    std::lock_guard lock(_lock);
    if (_isPrepared) return;
  }
  try {
    enterPresent();
  } catch (...) {
    forgetProvider();  // the next one that asks tries again
    throw;
  }
}

/// Enters the devices that are there already. Their events come at the same time; one change waits for the other.
void CaptureDeviceRegistry::enterPresent() {
  std::lock_guard changes(_changes);
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
  for (const auto& device : provider->devices()) attach(device, provider.get());
  std::lock_guard lock(_lock);
  _isPrepared = _provider == provider;
}

/// The provider's handler may be running, and wait for devices to be listed, while it is retired.
void CaptureDeviceRegistry::forgetProvider() {
  std::shared_ptr<hardware::Provider> provider;
  Entries entries;
  {
    std::lock_guard lock(_lock);
    provider = std::exchange(_provider, nullptr);
    _isPrepared = false;
    entries.swap(_entries);
  }
  if (provider) provider->setEventHandler(nullptr);
  for (const Entry& entry : entries) entry.device->stream().setHardware(nullptr);
}

std::vector<Ref<AVCaptureDevice>> CaptureDeviceRegistry::devices() {
  prepare();
  std::lock_guard lock(_lock);
  std::vector<Ref<AVCaptureDevice>> listed;
  listed.reserve(_entries.size());
  for (const Entry& entry : _entries) {
    if (isListed(entry)) listed.push_back(entry.device);
  }
  return listed;
}

Ref<AVCaptureDevice> CaptureDeviceRegistry::device(std::string_view uniqueID) {
  prepare();
  std::lock_guard lock(_lock);
  const auto entry = findConnected(uniqueID);
  return entry != _entries.end() && isListed(*entry) ? entry->device : Ref<AVCaptureDevice>();
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
    for (const Entry& entry : _entries) {
      if (entry.isConnected && entry.isScreenCapture) changed.push_back(entry.device);
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
  Ref<AVCaptureDevice> changed;
  {
    std::lock_guard changes(_changes);
    changed = isAttached ? attach(device, provider) : detach(*device, provider);
  }
  if (changed) {
    post(isAttached ? AVCaptureDeviceWasConnectedNotification : AVCaptureDeviceWasDisconnectedNotification, *changed);
  }
  changed = {};
  dropUnused();
} catch (const std::exception&) {  // no memory, or no thread
  NSLog("No memory for the device %s", device->description().uniqueID.c_str());
}

/// A device is listed only once it can be opened, after those that were connected before. Null when it is not listed.
Ref<AVCaptureDevice> CaptureDeviceRegistry::attach(const std::shared_ptr<hardware::Device>& device,
                                                   const hardware::Provider* provider) {
  Ref<AVCaptureDevice> object, replaced;
  {
    std::lock_guard lock(_lock);
    if (_provider.get() != provider) return {};
    object = objectFor(device->description());
    // The event of the one that had the ID may be late.
    const auto former = findConnected(object->uniqueID());
    if (former != _entries.end() && former->device != object) {
      former->isConnected = false;
      replaced = former->device;
    }
  }
  if (replaced) replaced->stream().setHardware(nullptr);
  object->attach(device);
  {
    std::lock_guard lock(_lock);
    if (const auto entry = std::ranges::find(_entries, object, &Entry::device); entry != _entries.end()) {
      entry->isConnected = true;
      std::rotate(entry, entry + 1, _entries.end());
      if (!isListed(_entries.back())) return {};
      return object;
    }
  }
  object->stream().setHardware(nullptr);  // the provider has been forgotten
  return {};
}

/// Null when the device was not listed.
Ref<AVCaptureDevice> CaptureDeviceRegistry::detach(const hardware::Device& device, const hardware::Provider* provider) {
  Ref<AVCaptureDevice> object;
  bool wasListed;
  {
    std::lock_guard lock(_lock);
    const auto entry = findConnected(device.description().uniqueID);
    if (_provider.get() != provider || entry == _entries.end()) return {};
    // What left may have come back already, as another piece of hardware.
    const auto present = entry->device->stream().hardware();
    if (present && present.get() != &device) return {};
    wasListed = isListed(*entry);
    entry->isConnected = false;
    object = entry->device;
  }
  object->stream().setHardware(nullptr);
  if (!wasListed) return {};
  return object;
}

/// With the lock held.
CaptureDeviceRegistry::Entries::iterator CaptureDeviceRegistry::findConnected(std::string_view uniqueID) {
  return std::ranges::find_if(
      _entries, [&](const Entry& entry) { return entry.isConnected && entry.device->uniqueID() == uniqueID; });
}

/// With the lock held.
Ref<AVCaptureDevice> CaptureDeviceRegistry::objectFor(const hardware::DeviceDescription& description) {
  const auto known =
      std::ranges::find_if(_entries, [&](const Entry& entry) { return entry.device->isDescribedBy(description); });
  if (known != _entries.end()) return known->device;
  _entries.push_back({makeRef<AVCaptureDevice>(description), description.isScreenCapture, false});
  return _entries.back().device;
}

/// An object that only the registry holds cannot gain a holder while the lock is held.
void CaptureDeviceRegistry::dropUnused() {
  std::lock_guard lock(_lock);
  std::erase_if(_entries, [](const Entry& entry) { return !entry.isConnected && entry.device->retainCount() == 1; });
}

void CaptureDeviceRegistry::post(NSNotificationName name, AVCaptureDevice& device) {
  NSNotificationCenter::defaultCenter().postNotificationName(name, &device);
}

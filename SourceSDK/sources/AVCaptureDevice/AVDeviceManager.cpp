#include "AVDeviceManager.h"

#include <CoreMediaIO/CMIOHardware.h>
#include <Foundation/NSNotification.h>
#include <Foundation/NSPathUtilities.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "AVLog.h"
#include "common/CommonSDK.h"

namespace AV {
namespace {

constexpr const char* PreferenceFile = "Library/Preferences/net.quorlane.brevanta.avcaptureprefs.xml";

}  // namespace

DeviceManager* DeviceManager::pInstance = nullptr;

void DeviceManager::initialize() {
  const CMIOObjectPropertyAddress address{kCMIOHardwarePropertyAllowScreenCaptureDevices,
                                          kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
  const UInt32 allow = 1;
  CMIOObjectSetPropertyData(kCMIOObjectSystemObject, &address, 0, nullptr, sizeof allow, &allow);
}

DeviceManager* DeviceManager::instance() {
  if (!pInstance) pInstance = new DeviceManager;
  return pInstance;
}

// From the first line on there is a manager: what throws below ends in the destructor, with the pass let go. A block of
// hot-plug may be waiting for it on the main thread.
DeviceManager::DeviceManager() : DeviceManager(Unobserving()) {
  // A device that comes between the two observers' registrations is not detected before both hear of what goes.
  std::lock_guard pass(_passLock);
  pAVCDeviceManager = std::make_unique<AVCDeviceManager>();
  observeHotPlug();
  pPrefs = std::make_unique<CapturePrefs>(stringByAppendingPathComponent(NSHomeDirectory(), PreferenceFile));
}

DeviceManager::~DeviceManager() {
  removeObservers();
  while (const auto first = getDeviceWithIndex(0)) _RemoveDevice(first);
  pPrefs.reset();
  setStateChangeCallback(nullptr, nullptr);
  pAVCDeviceManager.reset();
  pInstance = nullptr;
}

int DeviceManager::getDeviceCount() const {
  std::lock_guard lock(_tableLock);
  return static_cast<int>(deviceList.size());
}

std::shared_ptr<Device> DeviceManager::getDeviceWithIndex(int index) const {
  std::lock_guard lock(_tableLock);
  const bool isValid = index >= 0 && static_cast<std::size_t>(index) < deviceList.size();
  return isValid ? deviceList[static_cast<std::size_t>(index)] : nullptr;
}

std::shared_ptr<Device> DeviceManager::getDeviceWithName(std::string_view name) const {
  std::lock_guard lock(_tableLock);
  const auto entry = deviceMap.find(name);
  return entry == deviceMap.end() ? nullptr : entry->second;
}

std::shared_ptr<Device> DeviceManager::getDeviceWithID(const std::string& id) const {
  std::lock_guard lock(_tableLock);
  const auto found =
      std::ranges::find_if(deviceMap, [&](const auto& entry) { return entry.second->hasVideoOrAudioID(id); });
  return found == deviceMap.end() ? nullptr : found->second;
}

int DeviceManager::getIndexOfDeviceWithName(const std::string& name) const {
  std::lock_guard lock(_tableLock);
  const auto found = std::ranges::find(deviceList, name, &Device::getDeviceName);
  return found == deviceList.end() ? -1 : static_cast<int>(found - deviceList.begin());
}

int DeviceManager::getIndexOfDeviceID(const std::string& id) const {
  std::lock_guard lock(_tableLock);
  const auto found =
      std::ranges::find_if(deviceList, [&](const auto& device) { return device->hasVideoOrAudioID(id); });
  return found == deviceList.end() ? -1 : static_cast<int>(found - deviceList.begin());
}

std::shared_ptr<Device> DeviceManager::_getDeviceFromTotalDevice(const std::string& uniqueID) const {
  std::lock_guard lock(_tableLock);
  const auto entry = totalDeviceTable.lower_bound(uniqueID);
  return entry == totalDeviceTable.end() || entry->first != uniqueID ? nullptr : entry->second->weak_from_this().lock();
}

bool DeviceManager::hasDeviceRunning() const {
  std::lock_guard lock(_tableLock);
  return std::ranges::any_of(deviceMap, [](const auto& entry) { return entry.second->isRunning(); });
}

std::string DeviceManager::unusedName(const std::string& baseName, const std::string& suffix) const {
  std::lock_guard lock(_tableLock);
  std::string candidate = baseName + suffix;
  for (int number = 1; deviceMap.contains(candidate); ++number) {
    candidate = baseName;
    candidate.append(" ").append(std::to_string(number)).append(suffix);
  }
  return candidate;
}

std::shared_ptr<Device> DeviceManager::sourceAfter(const std::shared_ptr<Device>& previous) const {
  std::lock_guard lock(_tableLock);
  const auto next = previous ? deviceMap.upper_bound(previous->getDeviceName()) : deviceMap.begin();
  return next == deviceMap.end() ? nullptr : next->second;
}

DeviceManager::Sources DeviceManager::sourcesInOrder() const {
  std::lock_guard lock(_tableLock);
  return deviceList;
}

const char* DeviceManager::getDeviceName() const {
  return CSDK::TranslateString("p_source_systemdevice");
}

std::string DeviceManager::getLanguageCode() const {
  std::lock_guard lock(_tableLock);
  return languageCode;
}

void DeviceManager::setLanguageCode(std::string code) {
  std::lock_guard lock(_tableLock);
  languageCode = std::move(code);
}

std::string DeviceManager::getLastErrorMessage() const {
  std::lock_guard lock(_tableLock);
  return lastErrorMessage;
}

std::vector<AVCaptureDevice::Unoffered> DeviceManager::unofferedDevices() const {
  auto unoffered = AVCaptureDevice::unofferedDevices();
  for (const auto& device : AVCaptureDevice::devices()) {
    std::lock_guard lock(_tableLock);
    const auto reason = unofferedReasons.find(device->uniqueID());
    if (reason != unofferedReasons.end()) unoffered.push_back({device->localizedName(), reason->second});
  }
  return unoffered;
}

void DeviceManager::_AddDevice(std::shared_ptr<Device> device) {
  if (!device) return;
  std::lock_guard lock(_tableLock);
  deviceList.reserve(deviceList.size() + 1);
  if (deviceMap.try_emplace(device->getDeviceName(), device).second) deviceList.push_back(std::move(device));
}

void DeviceManager::_RemoveDevice(const std::shared_ptr<Device>& device) noexcept {
  // A thread that works on it might start it again, and the host be called by a source that it no longer finds.
  device->retireDevice();
  _removeFromTotalDeviceTable(device.get());
  std::lock_guard lock(_tableLock);
  if (std::erase(deviceList, device) > 0) deviceMap.erase(device->getDeviceName());
}

void DeviceManager::_addToTotalDeviceTable(Device* device) {
  if (!device) return;
  std::lock_guard lock(_tableLock);
  std::multimap<std::string, Device*, std::less<>> added;
  device->forEachCaptureDevice([&](const AVCaptureDevice& used) {
    const std::string& id = used.uniqueID();
    const auto users = totalDeviceTable.equal_range(id);
    const bool isEntered =
        std::any_of(users.first, users.second, [&](const auto& entry) { return entry.second == device; });
    if (!isEntered && !added.contains(id)) added.emplace(id, device);
  });
  totalDeviceTable.merge(added);  // needs no memory
}

void DeviceManager::_removeFromTotalDeviceTable(Device* device) noexcept {
  if (!device) return;
  std::lock_guard lock(_tableLock);
  device->forEachCaptureDevice([&](const AVCaptureDevice& used) {
    auto [entry, end] = totalDeviceTable.equal_range(used.uniqueID());
    while (entry != end) entry = entry->second == device ? totalDeviceTable.erase(entry) : std::next(entry);
  });
}

void DeviceManager::startAllDevices() {
  for (auto device = sourceAfter(nullptr); device; device = sourceAfter(device)) device->startDevice();
}

void DeviceManager::stopAllDevices() {
  for (auto device = sourceAfter(nullptr); device; device = sourceAfter(device)) device->stopDevice();
}

void DeviceManager::setStateChangeCallback(BRV_DeviceStateChangedCallback callback, void* context) {
  std::unique_lock lock(_stateChange->lock);
  _stateChange->stateChangeCallback = callback;
  _stateChange->stateChangeContext = context;
  // Calls are made on the main thread alone: there it can only be the callback itself that replaces it.
  if (!NSThread::isMainThread())
    _stateChange->callEnded.wait(lock, [this] { return _stateChange->callsInProgress == 0; });
}

void DeviceManager::PrintDeviceList() const {
  AV_LOG(LevelBanner, "---------------    Begin Print Device List    ---------------\n");
  for (const auto& device : sourcesInOrder()) {
    AV_LOG(LevelOther, "\t%s (AudioID=%s, VideoID=%s)\n", device->getDeviceName().c_str(),
           device->getAudioDeviceID().c_str(), device->getVideoDeviceID().c_str());
  }
  AV_LOG(LevelBanner, "---------------    End Print Device List    ---------------\n");
}

}  // namespace AV

#include "AVDeviceManager.h"

#include <CoreMediaIO/CMIOHardware.h>
#include <Foundation/NSNotification.h>
#include <Foundation/NSPathUtilities.h>

#include <algorithm>
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
  const auto firstDevice = [this] {
    std::lock_guard lock(_tableLock);
    return deviceList.first();
  };
  while (Device* first = firstDevice()) _RemoveDevice(first);
  pPrefs.reset();
  setStateChangeCallback(nullptr, nullptr);
  pAVCDeviceManager.reset();
  pInstance = nullptr;
}

int DeviceManager::getDeviceCount() const {
  std::lock_guard lock(_tableLock);
  return static_cast<int>(deviceList.size());
}

Device* DeviceManager::getDeviceWithIndex(int index) const {
  std::lock_guard lock(_tableLock);
  const auto& list = deviceList.list();
  return index >= 0 && static_cast<std::size_t>(index) < list.size() ? list[static_cast<std::size_t>(index)] : nullptr;
}

Device* DeviceManager::getDeviceWithName(std::string_view name) const {
  std::lock_guard lock(_tableLock);
  return find(deviceMap, name);
}

Device* DeviceManager::getDeviceWithID(const std::string& id) const {
  std::lock_guard lock(_tableLock);
  return deviceList.firstWithID(id);
}

int DeviceManager::getIndexOfDeviceWithName(const std::string& name) const {
  std::lock_guard lock(_tableLock);
  const auto& list = deviceList.list();
  const auto found =
      std::find_if(list.begin(), list.end(), [&](const Device* device) { return device->getDeviceName() == name; });
  return found == list.end() ? -1 : static_cast<int>(found - list.begin());
}

int DeviceManager::getIndexOfDeviceID(const std::string& id) const {
  std::lock_guard lock(_tableLock);
  const auto& list = deviceList.list();
  const auto found = std::find_if(list.begin(), list.end(), [&](const Device* device) {
    return device->getAudioDeviceID() == id || device->getVideoDeviceID() == id;
  });
  return found == list.end() ? -1 : static_cast<int>(found - list.begin());
}

Device* DeviceManager::_getDeviceFromTotalDevice(const std::string& uniqueID) const {
  std::lock_guard lock(_tableLock);
  return find(totalDeviceTable, uniqueID);
}

bool DeviceManager::hasDeviceRunning() const {
  std::lock_guard lock(_tableLock);
  return std::any_of(deviceMap.begin(), deviceMap.end(), [](const auto& entry) { return entry.second->isRunning(); });
}

Device* DeviceManager::find(const DeviceTable& table, std::string_view key) {
  const auto entry = table.find(key);
  return entry == table.end() ? nullptr : entry->second;
}

std::string DeviceManager::unusedName(const std::string& baseName, const std::string& suffix) {
  std::lock_guard lock(_tableLock);
  std::string candidate = baseName + suffix;
  if (!find(deviceMap, candidate)) return candidate;
  int& number = nextNameNumbers.try_emplace({baseName, suffix}, 1).first->second;
  for (;; ++number) {
    candidate = baseName + " " + std::to_string(number) + suffix;
    if (!find(deviceMap, candidate)) return candidate;
  }
}

DeviceUse DeviceManager::useDeviceWithName(std::string_view name) {
  std::lock_guard lock(_tableLock);
  return {_uses, find(deviceMap, name)};
}

DeviceUse DeviceManager::useDeviceWithIndex(int index) {
  std::lock_guard lock(_tableLock);
  const auto& list = deviceList.list();
  const bool isValid = index >= 0 && static_cast<std::size_t>(index) < list.size();
  return {_uses, isValid ? list[static_cast<std::size_t>(index)] : nullptr};
}

DeviceUse DeviceManager::useDeviceAfter(const DeviceUse& previous) {
  std::lock_guard lock(_tableLock);
  const auto next = previous ? deviceMap.upper_bound(previous->getDeviceName()) : deviceMap.begin();
  return {_uses, next != deviceMap.end() ? next->second : nullptr};
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

void DeviceManager::_AddDevice(Device* device) {
  if (!device) return;
  std::lock_guard lock(_tableLock);
  const auto [entry, isNew] = deviceMap.try_emplace(device->getDeviceName(), device);
  if (!isNew) return;
  try {
    deviceList.add(device);
  } catch (...) {
    deviceMap.erase(entry);
    throw;
  }
}

void DeviceManager::_RemoveDevice(Device* device) noexcept {
  // A use that is under way might start it again, and the host be called by a source that it no longer finds.
  device->retireDevice();
  _removeFromTotalDeviceTable(device);
  {
    std::lock_guard lock(_tableLock);
    deviceMap.erase(device->getDeviceName());
    nextNameNumbers.clear();
    deviceList.remove(device);
  }
  if (_uses->waitForOthers(device)) delete device;
}

void DeviceManager::_addToTotalDeviceTable(Device* device) {
  if (!device) return;
  std::lock_guard lock(_tableLock);
  DeviceTable entries;
  device->forEachDeviceID([&](const std::string& id) { entries.try_emplace(id, device); });
  deviceList.update(device);
  totalDeviceTable.merge(entries);  // takes no memory
}

void DeviceManager::_removeFromTotalDeviceTable(Device* device) noexcept {
  if (!device) return;
  std::lock_guard lock(_tableLock);
  device->forEachDeviceID([&](const std::string& id) { totalDeviceTable.erase(id); });
}

void DeviceManager::startAllDevices() {
  for (DeviceUse device = useDeviceAfter({}); device; device = useDeviceAfter(device)) device->startDevice();
}

void DeviceManager::stopAllDevices() {
  for (DeviceUse device = useDeviceAfter({}); device; device = useDeviceAfter(device)) device->stopDevice();
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
  struct Line {
    std::string name, audioID, videoID;
  };
  std::vector<Line> lines;
  {
    std::lock_guard lock(_tableLock);
    for (const Device* device : deviceList.list()) {
      lines.push_back({device->getDeviceName(), device->getAudioDeviceID(), device->getVideoDeviceID()});
    }
  }
  AV_LOG(LevelBanner, "---------------    Begin Print Device List    ---------------\n");
  for (const Line& line : lines) {
    AV_LOG(LevelOther, "\t%s (AudioID=%s, VideoID=%s)\n", line.name.c_str(), line.audioID.c_str(),
           line.videoID.c_str());
  }
  AV_LOG(LevelBanner, "---------------    End Print Device List    ---------------\n");
}

}  // namespace AV

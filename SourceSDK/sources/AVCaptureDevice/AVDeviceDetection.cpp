// How capture devices become sources, find each other, and leave again.

#include <Foundation/NSNotification.h>
#include <Foundation/NSScanner.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "AVDeviceManager.h"
#include "AVGuard.h"
#include "AVLog.h"

namespace AV {
namespace {

/// Devices whose names hold one of these words have plug-ins of their own, or come from the host itself.
constexpr std::array<std::string_view, 5> RefusedWords{"Decklink", "Blackmagic", "Intensity", "Brevanta", "AJA "};

}  // namespace

void DeviceManager::observeHotPlug() {
  auto& center = NSNotificationCenter::defaultCenter();
  auto* const mainQueue = &NSOperationQueue::mainQueue();
  const auto afterConnecting = [this](NSNotification&) {
    guarded([this] { detectDeviceConnect(); });
    tellHost(BRV_DEVICE_STATE_ATTACHED);
  };
  const auto afterDisconnecting = [this](NSNotification&) {
    guarded([this] { _DetectDeviceDisconnect(); });
    tellHost(BRV_DEVICE_STATE_REMOVED);
  };
  observers[0] =
      center.addObserverForName(AVCaptureDeviceWasConnectedNotification, nullptr, mainQueue, afterConnecting);
  observers[1] =
      center.addObserverForName(AVCaptureDeviceWasDisconnectedNotification, nullptr, mainQueue, afterDisconnecting);
}

void DeviceManager::removeObservers() noexcept {
  for (auto& observer : observers) NSNotificationCenter::defaultCenter().removeObserver(observer.get());
  observers = {};
}

/// Touches nothing of the manager after the call, in which the host may end the library.
void DeviceManager::tellHost(int deviceState) {
  const auto change = _stateChange;
  std::unique_lock lock(change->lock);
  const auto callback = change->stateChangeCallback;
  void* const context = change->stateChangeContext;
  if (!callback) return;
  ++change->callsInProgress;
  lock.unlock();
  callback(context, deviceState);
  lock.lock();
  --change->callsInProgress;
  lock.unlock();
  change->callEnded.notify_all();
}

bool DeviceManager::_AllowDevice(const std::string& name) const {
  return std::none_of(RefusedWords.begin(), RefusedWords.end(),
                      [&](std::string_view word) { return name.find(word) != std::string::npos; });
}

void DeviceManager::detectDeviceConnect() {
  std::lock_guard pass(_passLock);
  detectVideoDevices();
  detectAudioDevices();
}

void DeviceManager::detectVideoDevices() {
  auto devices = AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo);
  const auto muxedDevices = AVCaptureDevice::devicesWithMediaType(AVMediaTypeMuxed);
  devices.insert(devices.end(), muxedDevices.begin(), muxedDevices.end());

  for (const auto& device : devices) {
    if (!_AllowDevice(device->localizedName()) || _getDeviceFromTotalDevice(device->uniqueID()) ||
        joinsLinkedAudio(*device)) {
      continue;
    }
    const bool isHDV = isHDVCamcorder(device->uniqueID());  // first, for it may throw
    std::string error;
    if (auto source = makeSource(*device, error)) {
      source->setIsHDV(isHDV);
      addSource(std::move(source));
    } else {
      AV_LOG(LevelOther, "Error Loading Video Source %s: %s\n", device->localizedName().c_str(), error.c_str());
    }
  }
}

/// True when no source is to be made for this video device: it joined the source of its linked audio device, or none
/// of its linked devices has audio.
bool DeviceManager::joinsLinkedAudio(AVCaptureDevice& device) {
  const auto linked = device.linkedDevices();
  if (linked.empty()) return false;
  const auto audioDevice = std::find_if(linked.begin(), linked.end(), [](const Ref<AVCaptureDevice>& candidate) {
    return candidate->hasMediaType(AVMediaTypeAudio);
  });
  if (audioDevice == linked.end()) return true;
  Device* source = getDeviceWithID((*audioDevice)->uniqueID());
  if (!source) return false;
  source->setVideoTrackDevice(&device);
  return true;
}

void DeviceManager::detectAudioDevices() {
  for (const auto& device : AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio)) {
    if (!_AllowDevice(device->localizedName()) || _getDeviceFromTotalDevice(device->uniqueID()) ||
        joinsLinkedVideo(*device)) {
      continue;
    }
    std::string error;
    if (auto source = makeSource(*device, error)) {
      addSource(std::move(source));
    } else {
      AV_LOG(LevelOther, "Error Loading Audio Source %s: %s\n", device->localizedName().c_str(), error.c_str());
    }
  }
}

/// Joins the source of every linked video device. True when no source is to be made for this audio device: each of its
/// linked video devices has one, or there is none among its linked devices.
bool DeviceManager::joinsLinkedVideo(AVCaptureDevice& device) {
  const auto linked = device.linkedDevices();
  if (linked.empty()) return false;
  bool allHaveSources = true;
  for (const auto& candidate : linked) {
    if (!candidate->hasMediaType(AVMediaTypeVideo)) continue;
    if (Device* source = getDeviceWithID(candidate->uniqueID())) {
      source->setAudioTrackDevice(&device);
    } else {
      allHaveSources = false;
    }
  }
  return allHaveSources;
}

/// Null, and the reason in `error`, when the device cannot be opened. The next pass tries it again.
std::unique_ptr<Device> DeviceManager::makeSource(AVCaptureDevice& device, std::string& error) {
  auto source = std::make_unique<Device>(this, &device);
  if (source->getErrorString(error)) {
    std::lock_guard lock(_tableLock);
    lastErrorMessage = error;
    return nullptr;
  }
  return source;
}

/// The source is in the table of devices in use already.
void DeviceManager::addSource(std::unique_ptr<Device> source) {
  try {
    _AddDevice(source.get());
  } catch (...) {
    _removeFromTotalDeviceTable(source.get());
    throw;
  }
  source.release();
}

/// A FireWire device's unique ID is its GUID in hexadecimal behind one other character.
bool DeviceManager::isHDVCamcorder(const std::string& uniqueID) const {
  auto scanner = NSScanner::scannerWithString(uniqueID);
  scanner.setScanLocation(1);
  std::uint64_t guid = 0;
  scanner.scanHexLongLong(&guid);
  return pAVCDeviceManager->hasDeviceWithUID(guid) && AVCDeviceManager::isHDV(pAVCDeviceManager->deviceWithUID(guid));
}

void DeviceManager::_DetectDeviceDisconnect() {
  std::lock_guard pass(_passLock);
  const auto present = AVCaptureDevice::devices();
  std::unordered_set<std::string_view> presentIDs;
  for (const auto& device : present) presentIDs.insert(device->uniqueID());
  std::string place;
  while (Device* absent = findAbsentDevice(presentIDs, place)) _RemoveDevice(absent);
}

/// The first source, in the order of the table of devices in use, of which neither capture device is present. The walk
/// goes on from `place`, where the one before ended: a removal leaves nothing in front of it that is absent.
Device* DeviceManager::findAbsentDevice(const std::unordered_set<std::string_view>& presentIDs,
                                        std::string& place) const {
  std::lock_guard lock(_tableLock);
  for (auto entry = totalDeviceTable.lower_bound(place); entry != totalDeviceTable.end(); ++entry) {
    const auto& [uniqueID, source] = *entry;
    if (presentIDs.contains(source->getVideoDeviceID()) || presentIDs.contains(source->getAudioDeviceID())) continue;
    place = uniqueID;
    return source;
  }
  return nullptr;
}

}  // namespace AV

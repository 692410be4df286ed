// How capture devices become sources, find each other, and leave again.

#include <Foundation/NSNotification.h>
#include <Foundation/NSScanner.h>

#include <algorithm>
#include <array>
#include <set>
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
  change->callEnded.notify_all();
}

bool DeviceManager::_AllowDevice(const std::string& name) const {
  return std::none_of(RefusedWords.begin(), RefusedWords.end(),
                      [&](std::string_view word) { return name.find(word) != std::string::npos; });
}

void DeviceManager::detectDeviceConnect() {
  std::lock_guard pass(_passLock);
  {
    std::lock_guard lock(_tableLock);
    unofferedReasons.clear();
  }
  removeReplaced();
  detectVideoDevices();
  detectAudioDevices();
}

void DeviceManager::detectVideoDevices() {
  auto devices = AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo);
  for (auto& muxed : AVCaptureDevice::devicesWithMediaType(AVMediaTypeMuxed)) {
    if (!muxed->hasMediaType(AVMediaTypeVideo)) devices.push_back(std::move(muxed));
  }
  for (const auto& device : devices) {
    if (isNew(*device) && !joinsLinkedAudio(*device)) addVideoSource(*device);
  }
}

void DeviceManager::detectAudioDevices() {
  for (const auto& device : AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio)) {
    if (isNew(*device) && !joinsLinkedVideo(*device)) addAudioSource(*device);
  }
}

/// Whether a device may become, or join, a source in this pass.
bool DeviceManager::isNew(const AVCaptureDevice& device) {
  if (_AllowDevice(device.localizedName())) return !_getDeviceFromTotalDevice(device.uniqueID());
  noteUnoffered(device, "Devices of this name have a plug-in of their own.");
  return false;
}

/// True when no source is to be made for this video device: it joined the source of its linked audio device or could
/// not be opened, or none of its linked devices has audio.
bool DeviceManager::joinsLinkedAudio(AVCaptureDevice& device) {
  const auto linked = device.linkedDevices();
  if (linked.empty()) return false;
  const auto audioDevice = std::ranges::find_if(
      linked, [](const Ref<AVCaptureDevice>& candidate) { return candidate->hasMediaType(AVMediaTypeAudio); });
  if (audioDevice == linked.end()) return true;
  const auto source = getDeviceWithID((*audioDevice)->uniqueID());
  if (!source) return false;
  if (const auto error = source->setVideoTrackDevice(&device)) noteVideoFailure(device, error->localizedDescription());
  return true;
}

/// Joins the source of every linked video device. True when no source is to be made for this audio device: each of its
/// linked video devices has one, there is none among its linked devices, or it could not be opened.
bool DeviceManager::joinsLinkedVideo(AVCaptureDevice& device) {
  const auto linked = device.linkedDevices();
  if (linked.empty()) return false;
  bool allHaveSources = true;
  for (const auto& candidate : linked) {
    if (!candidate->hasMediaType(AVMediaTypeVideo)) continue;
    const auto source = getDeviceWithID(candidate->uniqueID());
    if (!source) {
      allHaveSources = false;
    } else if (const auto error = source->setAudioTrackDevice(&device)) {
      noteAudioFailure(device, error->localizedDescription());
      return true;
    }
  }
  return allHaveSources;
}

void DeviceManager::addVideoSource(AVCaptureDevice& device) {
  const bool isHDV = isHDVCamcorder(device.uniqueID());  // first, for it may throw
  const auto source = std::make_shared<Device>(this, &device);
  if (std::string error; source->getErrorString(error)) return noteVideoFailure(device, error);
  source->setIsHDV(isHDV);
  addSource(source);
}

void DeviceManager::addAudioSource(AVCaptureDevice& device) {
  const auto source = std::make_shared<Device>(this, &device);
  if (std::string error; source->getErrorString(error)) return noteAudioFailure(device, error);
  addSource(source);
}

/// The source is in the table of devices in use already.
void DeviceManager::addSource(const std::shared_ptr<Device>& source) {
  try {
    _AddDevice(source);
  } catch (...) {
    _removeFromTotalDeviceTable(source.get());
    throw;
  }
}

// Of a device that cannot be opened nothing is kept: the next pass tries it again.

void DeviceManager::noteVideoFailure(const AVCaptureDevice& device, const std::string& reason) {
  AV_LOG(LevelOther, "Error Loading Video Source %s: %s\n", device.localizedName().c_str(), reason.c_str());
  noteUnoffered(device, reason);
  std::lock_guard lock(_tableLock);
  lastErrorMessage = reason;
}

void DeviceManager::noteAudioFailure(const AVCaptureDevice& device, const std::string& reason) {
  AV_LOG(LevelOther, "Error Loading Audio Source %s: %s\n", device.localizedName().c_str(), reason.c_str());
  noteUnoffered(device, reason);
  std::lock_guard lock(_tableLock);
  lastErrorMessage = reason;
}

void DeviceManager::noteUnoffered(const AVCaptureDevice& device, const std::string& reason) {
  std::lock_guard lock(_tableLock);
  unofferedReasons[device.uniqueID()] = reason;
}

/// A FireWire device's unique ID is its GUID in hexadecimal after one other character.
bool DeviceManager::isHDVCamcorder(const std::string& uniqueID) const {
  auto scanner = NSScanner::scannerWithString(uniqueID);
  scanner.setScanLocation(1);
  std::uint64_t guid = 0;
  scanner.scanHexLongLong(&guid);
  return pAVCDeviceManager->hasDeviceWithUID(guid) && AVCDeviceManager::isHDV(pAVCDeviceManager->deviceWithUID(guid));
}

void DeviceManager::_DetectDeviceDisconnect() {
  std::lock_guard pass(_passLock);
  std::set<std::string, std::less<>> presentIDs;
  for (const auto& device : AVCaptureDevice::devices()) presentIDs.insert(device->uniqueID());
  for (const auto& source : sourcesInOrder()) {
    bool isPresent = false;
    source->forEachCaptureDevice(
        [&](const AVCaptureDevice& device) { isPresent |= presentIDs.contains(device.uniqueID()); });
    if (!isPresent) _RemoveDevice(source);
  }
  removeReplaced();
}

/// Removes the sources that hold a capture device in whose place another one has come: another camera in the same port,
/// or the same one with other formats. What is there now is new to the next detection.
void DeviceManager::removeReplaced() {
  const auto present = AVCaptureDevice::devices();
  for (const auto& source : sourcesInOrder()) {
    bool isReplaced = false;
    source->forEachCaptureDevice([&](const AVCaptureDevice& own) {
      isReplaced |= std::ranges::any_of(present, [&](const Ref<AVCaptureDevice>& device) {
        return device->uniqueID() == own.uniqueID() && device.get() != &own;
      });
    });
    if (isReplaced) _RemoveDevice(source);
  }
}

}  // namespace AV

#include <CoreMediaIO/CMIOHardware.h>

#include <AVFoundation/AVCaptureDevice.h>
#include <AVFoundation/Capture/CaptureDeviceRegistry.h>
#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFString.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace {

bool isGlobal(const CMIOObjectPropertyAddress* address, CMIOObjectPropertySelector selector) {
  return address && address->mSelector == selector && address->mScope == kCMIOObjectPropertyScopeGlobal &&
         address->mElement == kCMIOObjectPropertyElementMaster;
}

bool isKnown(const hardware::DeviceDescription& device) {
  return device.isKnownToCoreMediaIO && (device.hasVideo || device.isMuxed);
}

/// The unique IDs that have been translated; each one's place makes its object ID, for good.
class ObjectIDs {
 public:
  CMIOObjectID of(const std::string& uniqueID) {
    std::lock_guard lock(_lock);
    const auto found = std::ranges::find(_uniqueIDs, uniqueID);
    if (found == _uniqueIDs.end()) {
      _uniqueIDs.push_back(uniqueID);
      return FirstDevice + static_cast<CMIOObjectID>(_uniqueIDs.size()) - 1;
    }
    return FirstDevice + static_cast<CMIOObjectID>(found - _uniqueIDs.begin());
  }

  /// Empty for an object that is not a device.
  std::string uniqueIDOf(CMIOObjectID objectID) {
    std::lock_guard lock(_lock);
    const std::size_t index = std::size_t{objectID} - FirstDevice;
    return objectID >= FirstDevice && index < _uniqueIDs.size() ? _uniqueIDs[index] : std::string();
  }

 private:
  static constexpr CMIOObjectID FirstDevice = 32;

  std::mutex _lock;
  std::vector<std::string> _uniqueIDs;
};

ObjectIDs& objectIDs() {
  static auto* const ids = new ObjectIDs;
  return *ids;
}

/// A device that is listed now and that this layer knows; null when there is none.
std::shared_ptr<hardware::Device> knownDevice(std::string_view uniqueID) {
  const auto listed = AVCaptureDevice::devices();
  if (std::ranges::none_of(listed, [&](const auto& device) { return device->uniqueID() == uniqueID; })) return nullptr;
  const auto provider = CaptureDeviceRegistry::shared().provider();
  if (!provider) return nullptr;
  for (auto& device : provider->devices()) {
    if (device->description().uniqueID == uniqueID && isKnown(device->description())) return device;
  }
  return nullptr;
}

/// Writes as many of the known devices' IDs as there is room for.
OSStatus listDevices(UInt32 dataSize, UInt32* dataUsed, void* data) {
  const auto listed = AVCaptureDevice::devices();
  const auto provider = CaptureDeviceRegistry::shared().provider();
  if (!provider || !provider->canListDevices()) return kCMIOHardwareUnspecifiedError;
  UInt32 used = 0;
  for (const auto& device : listed) {
    if (dataSize - used < sizeof(CMIOObjectID)) break;
    if (!knownDevice(device->uniqueID())) continue;
    const CMIOObjectID objectID = objectIDs().of(device->uniqueID());
    std::memcpy(static_cast<char*>(data) + used, &objectID, sizeof objectID);
    used += sizeof objectID;
  }
  if (dataUsed) *dataUsed = used;
  return kCMIOHardwareNoError;
}

OSStatus translateDeviceForUID(UInt32 dataSize, UInt32* dataUsed, void* data) {
  AudioValueTranslation translation;
  if (dataSize != sizeof translation) return kCMIOHardwareBadPropertySizeError;
  std::memcpy(&translation, data, sizeof translation);
  if (!translation.mInputData || translation.mInputDataSize != sizeof(CFStringRef) || !translation.mOutputData ||
      translation.mOutputDataSize != sizeof(CMIOObjectID)) {
    return kCMIOHardwareBadPropertySizeError;
  }
  CFStringRef text = nullptr;
  std::memcpy(&text, translation.mInputData, sizeof text);
  const char* uniqueID = text ? CFStringGetCStringPtr(text, kCFStringEncodingUTF8) : nullptr;
  if (!uniqueID || !knownDevice(uniqueID)) return kCMIOHardwareBadDeviceError;

  const CMIOObjectID objectID = objectIDs().of(uniqueID);
  std::memcpy(translation.mOutputData, &objectID, sizeof objectID);
  if (dataUsed) *dataUsed = sizeof translation;
  return kCMIOHardwareNoError;
}

}  // namespace

OSStatus CMIOObjectSetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address, UInt32, const void*,
                                   UInt32 dataSize, const void* data) {
  if (objectID != kCMIOObjectSystemObject) return kCMIOHardwareBadObjectError;
  if (!isGlobal(address, kCMIOHardwarePropertyAllowScreenCaptureDevices)) return kCMIOHardwareUnknownPropertyError;
  UInt32 allows = 0;
  if (!data || dataSize != sizeof allows) return kCMIOHardwareBadPropertySizeError;
  std::memcpy(&allows, data, sizeof allows);
  try {
    CaptureDeviceRegistry::shared().setAllowsScreenCaptureDevices(allows != 0);
    return kCMIOHardwareNoError;
  } catch (const std::exception&) {
    return kCMIOHardwareUnspecifiedError;
  }
}

OSStatus CMIOObjectGetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address, UInt32, const void*,
                                   UInt32 dataSize, UInt32* dataUsed, void* data) {
  if (objectID != kCMIOObjectSystemObject) return kCMIOHardwareBadObjectError;
  const bool isList = isGlobal(address, kCMIOHardwarePropertyDevices);
  if (!isList && !isGlobal(address, kCMIOHardwarePropertyDeviceForUID)) return kCMIOHardwareUnknownPropertyError;
  if (!data) return kCMIOHardwareBadPropertySizeError;
  try {
    return isList ? listDevices(dataSize, dataUsed, data) : translateDeviceForUID(dataSize, dataUsed, data);
  } catch (const std::exception&) {
    return kCMIOHardwareUnspecifiedError;
  }
}

Boolean CMIOObjectHasProperty(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address) {
  if (objectID == kCMIOObjectSystemObject) {
    return isGlobal(address, kCMIOHardwarePropertyAllowScreenCaptureDevices) ||
           isGlobal(address, kCMIOHardwarePropertyDeviceForUID) || isGlobal(address, kCMIOHardwarePropertyDevices);
  }
  if (!isGlobal(address, kCMIODevicePropertyVideoDigitizerComponents)) return false;
  try {
    const auto device = knownDevice(objectIDs().uniqueIDOf(objectID));
    return device && device->description().hasVideoDigitizer;
  } catch (const std::exception&) {
    return false;
  }
}

#include <CoreMediaIO/CMIOHardware.h>

#include <AVFoundation/CaptureDeviceRegistry.h>

#include <cstring>

OSStatus CMIOObjectSetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address, UInt32, const void*,
                                   UInt32 dataSize, const void* data) {
  if (objectID != kCMIOObjectSystemObject) return kCMIOHardwareBadObjectError;
  if (!address || address->mSelector != kCMIOHardwarePropertyAllowScreenCaptureDevices ||
      address->mScope != kCMIOObjectPropertyScopeGlobal || address->mElement != kCMIOObjectPropertyElementMaster) {
    return kCMIOHardwareUnknownPropertyError;
  }
  UInt32 allows = 0;
  if (!data || dataSize != sizeof allows) return kCMIOHardwareBadPropertySizeError;
  std::memcpy(&allows, data, sizeof allows);
  CaptureDeviceRegistry::shared().setAllowsScreenCaptureDevices(allows != 0);
  return kCMIOHardwareNoError;
}

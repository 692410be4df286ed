#include "AVCaptureDevice+VDIGCategory.h"

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <Foundation/NSLog.h>

CMIOObjectID coreMediaID(const AVCaptureDevice& device) {
  const auto owner =
      CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, device.uniqueID().c_str(), kCFStringEncodingUTF8));
  CFStringRef uniqueID = owner.get();
  CMIOObjectID objectID = 0;
  AudioValueTranslation translation{&uniqueID, sizeof uniqueID, &objectID, sizeof objectID};
  const CMIOObjectPropertyAddress address{kCMIOHardwarePropertyDeviceForUID, kCMIOObjectPropertyScopeGlobal, 0};
  UInt32 used = 0;
  if (CMIOObjectGetPropertyData(kCMIOObjectSystemObject, &address, 0, nullptr, sizeof translation, &used,
                                &translation) != kCMIOHardwareNoError) {
    NSLog("Failed to get CMIODevice from UID %s\n", device.uniqueID().c_str());
  }
  return objectID;
}

bool hasVDIGComponent(const AVCaptureDevice& device) {
  const CMIOObjectID objectID = coreMediaID(device);
  if (objectID == 0) return false;
  const CMIOObjectPropertyAddress address{kCMIODevicePropertyVideoDigitizerComponents, kCMIOObjectPropertyScopeGlobal,
                                          0};
  return CMIOObjectHasProperty(objectID, &address) != 0;
}

#pragma once

// Properties of the capture layer below the devices: which there are, whether screen-capture devices are admitted,
// which object stands for a device, and whether it has a video digitizer.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef UInt32 CMIOObjectID;
typedef UInt32 CMIOObjectPropertySelector;
typedef UInt32 CMIOObjectPropertyScope;
typedef UInt32 CMIOObjectPropertyElement;

typedef struct CMIOObjectPropertyAddress {
  CMIOObjectPropertySelector mSelector;
  CMIOObjectPropertyScope mScope;
  CMIOObjectPropertyElement mElement;
} CMIOObjectPropertyAddress;

enum { kCMIOObjectSystemObject = 1 };
enum { kCMIOObjectPropertyScopeGlobal = 0x676C6F62 /* 'glob' */ };
enum { kCMIOObjectPropertyElementMaster = 0 };
enum {
  kCMIOHardwarePropertyDevices = 0x64657623,                    // 'dev#'
  kCMIOHardwarePropertyAllowScreenCaptureDevices = 0x79657320,  // 'yes '
  kCMIOHardwarePropertyDeviceForUID = 0x64756964,               // 'duid'
};
enum { kCMIODevicePropertyVideoDigitizerComponents = 0x76646967 /* 'vdig' */ };

enum {
  kCMIOHardwareNoError = 0,
  kCMIOHardwareUnknownPropertyError = 0x77686F3F,  // 'who?'
  kCMIOHardwareBadPropertySizeError = 0x2173697A,  // '!siz'
  kCMIOHardwareBadObjectError = 0x216F626A,        // '!obj'
  kCMIOHardwareBadDeviceError = 0x21646576,        // '!dev'
  kCMIOHardwareUnspecifiedError = 0x77686174,      // 'what'
};

/// Sets a property. Known on the system object: kCMIOHardwarePropertyAllowScreenCaptureDevices (a UInt32,
/// 0 or not), which lets tethered devices appear among the capture devices from then on, with a connect notification
/// each. Any thread.
OSStatus CMIOObjectSetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address,
                                   UInt32 qualifierDataSize, const void* qualifierData, UInt32 dataSize,
                                   const void* data);

/// Reads a property into `data`; `*dataUsed` (may be null) is the number of bytes written. Any thread. Known on the
/// system object:
///
/// kCMIOHardwarePropertyDeviceForUID, for which `data` is an AudioValueTranslation from the address of a CFStringRef to
/// that of a CMIOObjectID. A unique ID that is not of a device plugged in now, with pictures, that this layer knows,
/// gives kCMIOHardwareBadDeviceError and leaves the output as it was. A device keeps its object ID for the life of the
/// process.
///
/// kCMIOHardwarePropertyDevices, the CMIOObjectIDs of such devices, as many as `dataSize` has room for;
/// kCMIOHardwareUnspecifiedError where what is plugged in cannot be found out, which is not the same as nothing.
OSStatus CMIOObjectGetPropertyData(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address,
                                   UInt32 qualifierDataSize, const void* qualifierData, UInt32 dataSize,
                                   UInt32* dataUsed, void* data);

/// Whether an object has a property: those above of the system object, and of a device that is plugged in,
/// kCMIODevicePropertyVideoDigitizerComponents (which has no value here). False for an unknown object. Any thread.
Boolean CMIOObjectHasProperty(CMIOObjectID objectID, const CMIOObjectPropertyAddress* address);

CF_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(CMIOObjectPropertyAddress) == 12);
#endif

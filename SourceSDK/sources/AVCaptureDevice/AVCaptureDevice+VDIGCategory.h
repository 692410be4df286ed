#pragma once

// What CoreMediaIO, the layer below the capture devices, knows of one of them. Any thread; nothing is kept.

#include <AVFoundation/AVCaptureDevice.h>
#include <CoreMediaIO/CMIOHardware.h>

/// The device's CoreMediaIO object; 0, with a line on the standard error, when CoreMediaIO does not know the device.
CMIOObjectID coreMediaID(const AVCaptureDevice& device);

/// Whether the device is backed by a video digitizer component.
bool hasVDIGComponent(const AVCaptureDevice& device);

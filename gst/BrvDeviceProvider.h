#pragma once

// The module's sources for GstDeviceMonitor, as they come and go: a device for each.

#include <gst/gst.h>

G_BEGIN_DECLS

#define BRV_TYPE_DEVICE_PROVIDER brv_device_provider_get_type()
G_DECLARE_FINAL_TYPE(BrvDeviceProvider, brv_device_provider, BRV, DEVICE_PROVIDER, GstDeviceProvider)

#define BRV_TYPE_DEVICE brv_device_get_type()
G_DECLARE_FINAL_TYPE(BrvDevice, brv_device, BRV, DEVICE, GstDevice)

G_END_DECLS

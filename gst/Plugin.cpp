#include "BrvDeviceProvider.h"
#include "BrvSrc.h"
#include "Handles.h"

GstDebugCategory* brvgst::debugCategory() {
  static GstDebugCategory* const category = _gst_debug_category_new("brvsrc", 0, "capture devices");
  return category;
}

namespace {

gboolean init(GstPlugin* plugin) {
  brvgst::debugCategory();
  // Nobody's pipeline is to get this element without asking for it, and other providers list their devices first.
  return gst_element_register(plugin, "brvsrc", GST_RANK_NONE, BRV_TYPE_SRC) &&
         gst_device_provider_register(plugin, "brvdeviceprovider", GST_RANK_SECONDARY, BRV_TYPE_DEVICE_PROVIDER);
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, brv, "Cameras, microphones and camcorders", init, BRV_VERSION,
                  "Proprietary", "AVCaptureDevice", "unknown")

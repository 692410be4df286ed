#include "BrvDeviceProvider.h"

#include <algorithm>

#include "BrvSrc.h"
#include "Capture.h"

using brvgst::Capture;
using brvgst::Description;
using Devices = std::map<std::string, std::pair<Description, GstDevice*>>;

struct _BrvDevice {
  GstDevice parent;
  gchar* source;  ///< what the element's property of that name is set to
};

struct _BrvDeviceProvider {
  GstDeviceProvider parent;
  std::shared_ptr<Capture>* capture;  ///< while it is started
  Devices* devices;                   ///< borrowed; the capture's watcher alone changes them
};

G_DEFINE_TYPE(BrvDevice, brv_device, GST_TYPE_DEVICE)
G_DEFINE_TYPE(BrvDeviceProvider, brv_device_provider, GST_TYPE_DEVICE_PROVIDER)

namespace {

using brvgst::Audio;
using brvgst::CapsPtr;
using brvgst::Video;

// ---- A device ----

CapsPtr capsOf(const Description& source) {
  CapsPtr caps(gst_caps_new_empty());
  if (source.has[Video]) {
    for (const auto& [width, height] : source.sizes) {
      GstCaps* const sized = gst_caps_from_string(brvgst::VideoCaps);
      gst_caps_set_simple(sized, "width", G_TYPE_INT, width, "height", G_TYPE_INT, height, nullptr);
      gst_caps_append(caps.get(), sized);
    }
    if (source.sizes.empty()) gst_caps_append(caps.get(), gst_caps_from_string(brvgst::VideoCaps));
  }
  if (source.has[Audio]) gst_caps_append(caps.get(), gst_caps_from_string(brvgst::AudioCaps));
  return caps;
}

/// The device outlasts its source's name, which says in which order devices came.
const std::string& lastingName(const Description& source) {
  const std::string& id = source.deviceId[source.has[Video] ? Video : Audio];
  return id.empty() ? source.name : id;
}

GstDevice* makeDevice(const Description& source) {
  GstStructure* const properties =
      gst_structure_new("brv-properties", "device.api", G_TYPE_STRING, "brv", "brv.source", G_TYPE_STRING,
                        source.name.c_str(), "brv.provider", G_TYPE_STRING, source.provider.c_str(), nullptr);
  const auto add = [&](const char* name, const std::string& value) {
    if (!value.empty()) gst_structure_set(properties, name, G_TYPE_STRING, value.c_str(), nullptr);
  };
  add("brv.video-device", source.deviceId[Video]);
  add("brv.audio-device", source.deviceId[Audio]);
  const char* const media = !source.has[Audio]  ? "Video/Source"
                            : source.has[Video] ? "Audio/Video/Source"
                                                : "Audio/Source";
  const CapsPtr caps = capsOf(source);
  auto* const device = BRV_DEVICE(g_object_new(BRV_TYPE_DEVICE, "display-name", source.name.c_str(), "device-class",
                                               media, "caps", caps.get(), "properties", properties, nullptr));
  gst_structure_free(properties);
  device->source = g_strdup(lastingName(source).c_str());
  return GST_DEVICE(device);
}

GstElement* createElement(GstDevice* device, const gchar* name) {
  GstElement* const element = gst_element_factory_make("brvsrc", name);
  if (element) g_object_set(element, "source", BRV_DEVICE(device)->source, nullptr);
  return element;
}

gboolean reconfigureElement(GstDevice* device, GstElement* element) {
  if (!BRV_IS_SRC(element) || GST_STATE(element) > GST_STATE_READY) return FALSE;
  g_object_set(element, "source", BRV_DEVICE(device)->source, nullptr);
  return TRUE;
}

void finalizeDevice(GObject* object) {
  g_free(BRV_DEVICE(object)->source);
  G_OBJECT_CLASS(brv_device_parent_class)->finalize(object);
}

// ---- The provider ----

GList* probe(GstDeviceProvider* provider) {
  GList* devices = nullptr;
  try {
    for (const Description& source : Capture::open({})->sources()) {
      devices = g_list_prepend(devices, gst_object_ref_sink(makeDevice(source)));
    }
  } catch (const std::exception& error) {
    GST_WARNING_OBJECT(provider, "no devices: %s", error.what());
  }
  return g_list_reverse(devices);
}

/// Adds and removes devices until they are these. One that has changed is another.
void update(BrvDeviceProvider* self, const std::vector<Description>& sources) {
  Devices& devices = *self->devices;
  std::erase_if(devices, [&](const auto& entry) {
    const auto& [source, device] = entry.second;
    const bool isGone = std::ranges::find(sources, source) == sources.end();
    if (isGone) gst_device_provider_device_remove(GST_DEVICE_PROVIDER(self), device);
    return isGone;
  });
  for (const Description& source : sources) {
    if (devices.contains(source.name)) continue;
    GstDevice* const device = makeDevice(source);
    devices[source.name] = {source, device};
    gst_device_provider_device_add(GST_DEVICE_PROVIDER(self), device);
  }
}

gboolean start(GstDeviceProvider* provider) {
  auto* const self = BRV_DEVICE_PROVIDER(provider);
  try {
    const auto capture = Capture::open({});
    capture->addWatcher(self, [self](const std::vector<Description>& sources) { update(self, sources); });
    *self->capture = capture;
    return TRUE;
  } catch (const std::exception& error) {
    GST_WARNING_OBJECT(provider, "no devices: %s", error.what());
    return FALSE;
  }
}

void stop(GstDeviceProvider* provider) {
  auto* const self = BRV_DEVICE_PROVIDER(provider);
  if (*self->capture) (*self->capture)->removeWatcher(self);
  self->capture->reset();
  self->devices->clear();
}

void finalizeProvider(GObject* object) {
  auto* const self = BRV_DEVICE_PROVIDER(object);
  delete self->capture;
  delete self->devices;
  G_OBJECT_CLASS(brv_device_provider_parent_class)->finalize(object);
}

}  // namespace

static void brv_device_class_init(BrvDeviceClass* deviceClass) {
  GST_DEVICE_CLASS(deviceClass)->create_element = createElement;
  GST_DEVICE_CLASS(deviceClass)->reconfigure_element = reconfigureElement;
  G_OBJECT_CLASS(deviceClass)->finalize = finalizeDevice;
}

static void brv_device_init(BrvDevice*) {}

static void brv_device_provider_class_init(BrvDeviceProviderClass* providerClass) {
  GstDeviceProviderClass* const parent = GST_DEVICE_PROVIDER_CLASS(providerClass);
  parent->probe = probe;
  parent->start = start;
  parent->stop = stop;
  G_OBJECT_CLASS(providerClass)->finalize = finalizeProvider;
  gst_device_provider_class_set_static_metadata(parent, "Camera and microphone provider", "Source/Video/Audio",
                                                "Lists cameras, microphones and camcorders as they come and go",
                                                "The AVCaptureDevice authors");
}

static void brv_device_provider_init(BrvDeviceProvider* self) {
  self->capture = new std::shared_ptr<Capture>;
  self->devices = new Devices;
}

#include "BrvSrc.h"

#include "Capture.h"
#include "Outlet.h"

namespace {

using namespace brvgst;

enum Property : guint { NoProperty, Source, Format, Fps, AudioFormat, Module, Waits, Stats };

constexpr PerMedium<const char*> PadNames = {"video", "audio"};

}  // namespace

/// The element's own part in C++.
struct BrvSrcPrivate {
  // Under the object's lock:
  std::string source, format, fps, audioFormat, module;
  bool waits = false;
  PerMedium<GstPad*> pads{};  ///< the element's own; null where nobody asked for the medium

  Run run;
  // While the element is paused or plays, under `captureLock`, which is never held by a task or a callback:
  std::mutex captureLock;
  std::shared_ptr<Capture> capture;
  Capture::Listener* listener = nullptr;
};

struct _BrvSrc {
  GstElement parent;
  BrvSrcPrivate* own;
};

G_DEFINE_TYPE(BrvSrc, brv_src, GST_TYPE_ELEMENT)

namespace {

class ObjectLock {
 public:
  explicit ObjectLock(BrvSrc* object) : _object(object) { GST_OBJECT_LOCK(_object); }
  ~ObjectLock() { GST_OBJECT_UNLOCK(_object); }
  ObjectLock(const ObjectLock&) = delete;
  ObjectLock& operator=(const ObjectLock&) = delete;

 private:
  BrvSrc* const _object;
};

/// The pads at present, kept.
std::vector<ObjectPtr<GstPad>> padsOf(BrvSrc* self) {
  const ObjectLock lock(self);
  std::vector<ObjectPtr<GstPad>> pads;
  for (GstPad* const pad : self->own->pads) {
    if (pad) pads.emplace_back(GST_PAD(gst_object_ref(pad)));
  }
  return pads;
}

void setPlaying(BrvSrc* self, bool isPlaying) {
  for (const auto& pad : padsOf(self)) Outlet::of(pad.get()).inbox()->setPlaying(isPlaying);
}

// ---- Capturing ----

Order orderOf(BrvSrc* self) {
  const BrvSrcPrivate& own = *self->own;
  const ObjectLock lock(self);
  Order order{own.source, own.format, own.fps, own.audioFormat, own.waits, {}};
  for (GstPad* const pad : own.pads) {
    if (pad) order.inboxes[Outlet::of(pad).medium()] = Outlet::of(pad).inbox();
  }
  return order;
}

/// Listens to what there are pads for, or no more. Under the capture lock. Throws brv::Error.
void listen(BrvSrc* self) {
  BrvSrcPrivate& own = *self->own;
  if (own.listener) own.capture->end(std::exchange(own.listener, nullptr));
  Order order = orderOf(self);
  if (order.inboxes[Video] || order.inboxes[Audio]) own.listener = own.capture->listen(std::move(order));
}

/// Does the work under the capture lock; false, and a message after that, where it fails.
template <typename Work>
bool succeeds(BrvSrc* self, Work&& work) {
  std::string error;
  {
    const std::lock_guard lock(self->own->captureLock);
    try {
      work();
      return true;
    } catch (const std::exception& failure) {
      error = failure.what();
    }
  }
  GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND, ("%s", error.c_str()), (nullptr));
  return false;
}

bool startCapture(BrvSrc* self) {
  BrvSrcPrivate& own = *self->own;
  own.run.hasFailed = false;
  own.run.groupId = gst_util_group_id_next();
  gst_flow_combiner_reset(own.run.combiner);
  for (const auto& pad : padsOf(self)) Outlet::of(pad.get()).reset();
  std::string module;
  {
    const ObjectLock lock(self);
    module = own.module;
    own.run.waits = own.waits;
  }
  return succeeds(self, [&] {
    own.capture = Capture::open(module);
    listen(self);
  });
}

void stopCapture(BrvSrc* self) {
  BrvSrcPrivate& own = *self->own;
  for (const auto& pad : padsOf(self)) Outlet::of(pad.get()).inbox()->setFlushing(true);
  const std::lock_guard lock(own.captureLock);
  if (own.listener) own.capture->end(std::exchange(own.listener, nullptr));
  own.capture.reset();
}

GstStateChangeReturn changeState(GstElement* element, GstStateChange transition) {
  BrvSrc* const self = BRV_SRC(element);
  if (transition == GST_STATE_CHANGE_READY_TO_PAUSED && !startCapture(self)) {
    stopCapture(self);
    return GST_STATE_CHANGE_FAILURE;
  }
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) setPlaying(self, true);
  if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) setPlaying(self, false);
  const auto result = GST_ELEMENT_CLASS(brv_src_parent_class)->change_state(element, transition);
  if (transition == GST_STATE_CHANGE_PAUSED_TO_READY ||
      (transition == GST_STATE_CHANGE_READY_TO_PAUSED && result == GST_STATE_CHANGE_FAILURE)) {
    stopCapture(self);
  }
  // A live source has nothing to show while it is paused.
  const bool isPaused =
      transition == GST_STATE_CHANGE_READY_TO_PAUSED || transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED;
  return isPaused && result != GST_STATE_CHANGE_FAILURE ? GST_STATE_CHANGE_NO_PREROLL : result;
}

// ---- Pads ----

/// Asks for what there are pads for now, while the element runs.
void listenAgain(BrvSrc* self) {
  succeeds(self, [&] {
    if (self->own->capture) listen(self);
  });
}

void removePad(GstElement* element, GstPad* pad) {
  BrvSrc* const self = BRV_SRC(element);
  BrvSrcPrivate& own = *self->own;
  const Medium medium = Outlet::of(pad).medium();
  {
    const ObjectLock lock(self);
    if (own.pads[medium] != pad) return;
    own.pads[medium] = nullptr;
  }
  gst_pad_set_active(pad, FALSE);
  {
    const std::lock_guard lock(own.run.flowLock);
    gst_flow_combiner_remove_pad(own.run.combiner, pad);
  }
  listenAgain(self);
  gst_element_remove_pad(element, pad);
}

GstPad* requestPad(GstElement* element, GstPadTemplate* padTemplate, const gchar*, const GstCaps*) {
  BrvSrc* const self = BRV_SRC(element);
  BrvSrcPrivate& own = *self->own;
  const Medium medium = g_str_equal(GST_PAD_TEMPLATE_NAME_TEMPLATE(padTemplate), PadNames[Video]) ? Video : Audio;
  GstPad* const pad = gst_pad_new_from_template(padTemplate, PadNames[medium]);
  Outlet& outlet = Outlet::attachTo(pad, medium, element, own.run);
  bool isTaken = false;
  {
    const ObjectLock lock(self);
    isTaken = own.pads[medium] != nullptr;
    if (!isTaken) own.pads[medium] = pad;
  }
  if (isTaken) {
    gst_object_unref(gst_object_ref_sink(pad));
    return nullptr;
  }
  {
    const std::lock_guard lock(own.run.flowLock);
    gst_flow_combiner_add_pad(own.run.combiner, pad);
  }
  if (GST_STATE(element) >= GST_STATE_PAUSED) {
    outlet.reset();
    outlet.inbox()->setPlaying(GST_STATE(element) == GST_STATE_PLAYING);
    listenAgain(self);
    gst_pad_set_active(pad, TRUE);
  }
  gst_element_add_pad(element, pad);
  return pad;
}

/// The end of the stream goes the way of the samples; a flush overtakes them.
gboolean sendEvent(GstElement* element, GstEvent* event) {
  BrvSrc* const self = BRV_SRC(element);
  const EventPtr owned(event);
  const auto type = GST_EVENT_TYPE(event);
  if (type != GST_EVENT_EOS && type != GST_EVENT_FLUSH_START && type != GST_EVENT_FLUSH_STOP) return FALSE;
  for (const auto& pad : padsOf(self)) {
    Outlet& outlet = Outlet::of(pad.get());
    if (type == GST_EVENT_EOS) {
      outlet.inbox()->end(EventPtr(gst_event_ref(event)));
      continue;
    }
    if (type == GST_EVENT_FLUSH_START) outlet.inbox()->setFlushing(true);
    gst_pad_push_event(pad.get(), gst_event_ref(event));
    if (type == GST_EVENT_FLUSH_START) gst_pad_pause_task(pad.get());
    if (type == GST_EVENT_FLUSH_STOP) outlet.resume();
  }
  return TRUE;
}

// ---- Properties ----

std::string* textOf(BrvSrcPrivate& own, guint property) {
  switch (property) {
    case Source:
      return &own.source;
    case Format:
      return &own.format;
    case Fps:
      return &own.fps;
    case AudioFormat:
      return &own.audioFormat;
    case Module:
      return &own.module;
    default:
      return nullptr;
  }
}

void setProperty(GObject* object, guint property, const GValue* value, GParamSpec* parameter) {
  BrvSrc* const self = BRV_SRC(object);
  const ObjectLock lock(self);
  if (std::string* const text = textOf(*self->own, property)) {
    const gchar* const given = g_value_get_string(value);
    *text = given ? given : "";
  } else if (property == Waits) {
    self->own->waits = g_value_get_boolean(value);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, property, parameter);
  }
}

void addCounts(GstStructure* stats, Medium medium, const std::vector<brv::Field>& account, std::uint64_t dropped) {
  GstStructure* const counts = gst_structure_new_empty(PadNames[medium]);
  for (const brv::Field& field : account) {
    if (field.name.empty()) continue;
    const std::string name = (field.record == "frames" ? "frames-" : "") + field.name;
    gst_structure_set(counts, name.c_str(), G_TYPE_INT64, g_ascii_strtoll(field.value.c_str(), nullptr, 10), nullptr);
  }
  gst_structure_set(counts, "dropped", G_TYPE_UINT64, dropped, nullptr);
  gst_structure_set(stats, PadNames[medium], GST_TYPE_STRUCTURE, counts, nullptr);
  gst_structure_free(counts);
}

GstStructure* statsOf(BrvSrc* self) {
  BrvSrcPrivate& own = *self->own;
  GstStructure* const stats = gst_structure_new_empty("application/x-brvsrc-stats");
  const std::lock_guard lock(own.captureLock);
  if (!own.listener) return stats;
  try {
    gst_structure_set(stats, "source", G_TYPE_STRING, own.capture->nameOf(own.listener).c_str(), nullptr);
    for (const auto& pad : padsOf(self)) {
      const Outlet& outlet = Outlet::of(pad.get());
      const auto account = own.capture->account(own.listener, outlet.medium());
      addCounts(stats, outlet.medium(), account, outlet.inbox()->dropped());
    }
  } catch (const std::exception& error) {
    GST_WARNING_OBJECT(self, "no statistics: %s", error.what());
  }
  return stats;
}

void getProperty(GObject* object, guint property, GValue* value, GParamSpec* parameter) {
  BrvSrc* const self = BRV_SRC(object);
  if (property == Stats) return g_value_take_boxed(value, statsOf(self));
  const ObjectLock lock(self);
  if (const std::string* const text = textOf(*self->own, property)) {
    g_value_set_string(value, text->c_str());
  } else if (property == Waits) {
    g_value_set_boolean(value, self->own->waits);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, property, parameter);
  }
}

void finalize(GObject* object) {
  delete BRV_SRC(object)->own;
  G_OBJECT_CLASS(brv_src_parent_class)->finalize(object);
}

void installProperties(GObjectClass* objectClass) {
  constexpr auto Settable =
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  constexpr auto Readable = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  const auto addText = [&](Property property, const char* name, const char* nick, const char* blurb) {
    g_object_class_install_property(objectClass, property, g_param_spec_string(name, nick, blurb, "", Settable));
  };
  addText(Source, "source", "Source",
          "The source: its name, the beginning of its name, or the unique ID of its device; "
          "empty: the first one that has what is linked");
  addText(Format, "format", "Picture format",
          "The size of the pictures: the title of a choice, such as \"1280 x 720\", how it begins, or its index; "
          "empty: the module chooses");
  addText(Fps, "fps", "Frame rate", "Pictures a second, such as 29.97 or 30000/1001; empty: the module chooses");
  addText(AudioFormat, "audio-format", "Sound format",
          "The format that the sound is captured in: the title of a choice, how it begins, or its index; "
          "empty: the module chooses");
  addText(Module, "module", "Module",
          "The capture module's path; empty: where it is installed, or BRV_MODULE in the environment. "
          "The first one in a process counts for all");
  g_object_class_install_property(
      objectClass, Waits,
      g_param_spec_boolean("wait", "Wait for the source",
                           "Wait for a source that is missing or unplugged, and fill the time with gaps, "
                           "instead of an error",
                           FALSE, Settable));
  g_object_class_install_property(
      objectClass, Stats,
      g_param_spec_boxed("stats", "Statistics",
                         "What became of the samples: for each pad the module's account, and \"dropped\", "
                         "what came faster than it was taken from the element",
                         GST_TYPE_STRUCTURE, Readable));
}

void addTemplate(GstElementClass* elementClass, const char* name, const char* text) {
  GstCaps* const caps = gst_caps_from_string(text);
  gst_element_class_add_pad_template(elementClass, gst_pad_template_new(name, GST_PAD_SRC, GST_PAD_REQUEST, caps));
  gst_caps_unref(caps);
}

}  // namespace

static void brv_src_class_init(BrvSrcClass* srcClass) {
  GObjectClass* const objectClass = G_OBJECT_CLASS(srcClass);
  objectClass->set_property = setProperty;
  objectClass->get_property = getProperty;
  objectClass->finalize = finalize;
  installProperties(objectClass);

  GstElementClass* const elementClass = GST_ELEMENT_CLASS(srcClass);
  elementClass->change_state = changeState;
  elementClass->request_new_pad = requestPad;
  elementClass->release_pad = removePad;
  elementClass->send_event = sendEvent;
  addTemplate(elementClass, PadNames[Video], VideoCaps);
  addTemplate(elementClass, PadNames[Audio], AudioCaps);
  gst_element_class_set_static_metadata(
      elementClass, "Camera and microphone source", "Source/Video/Audio/Hardware",
      "Captures the pictures and the sound of a camera, microphone or camcorder, in step and without a copy",
      "The AVCaptureDevice authors");
}

static void brv_src_init(BrvSrc* self) {
  self->own = new BrvSrcPrivate;
  GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
}

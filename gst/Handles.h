#pragma once

// Owners of GStreamer's counted objects.

#include <gst/gst.h>

#include <memory>

namespace brvgst {

struct MiniObjectUnref {
  template <typename Object>
  void operator()(Object* object) const {
    gst_mini_object_unref(reinterpret_cast<GstMiniObject*>(object));
  }
};

struct ObjectUnref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};

using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectUnref>;
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectUnref>;
using EventPtr = std::unique_ptr<GstEvent, MiniObjectUnref>;
using QueryPtr = std::unique_ptr<GstQuery, MiniObjectUnref>;
template <typename Object>
using ObjectPtr = std::unique_ptr<Object, ObjectUnref>;

/// The plug-in's lines in GST_DEBUG.
GstDebugCategory* debugCategory();

}  // namespace brvgst

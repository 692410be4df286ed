#pragma once

// A source pad in front of an application's sink, with GStreamer's queue between them when asked for.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <cstdint>

namespace bench {

class GStreamerLine {
 public:
  using Callback = void (*)(void* context, std::int64_t time);

  /// `callback` gets the time of every buffer, on the thread that brings it to the sink.
  GStreamerLine(bool hasQueue, Callback callback, void* context) : _callback(callback), _context(context) {
    gst_init(nullptr, nullptr);
    _pipeline = gst_pipeline_new(nullptr);
    _sink = gst_element_factory_make("appsink", nullptr);
    g_object_set(_sink, "sync", FALSE, "async", FALSE, nullptr);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = take;
    gst_app_sink_set_callbacks(GST_APP_SINK(_sink), &callbacks, this, nullptr);
    gst_bin_add(GST_BIN(_pipeline), _sink);
    GstElement* first = _sink;
    if (hasQueue) {
      first = gst_element_factory_make("queue", nullptr);
      gst_bin_add(GST_BIN(_pipeline), first);
      gst_element_link(first, _sink);
    }
    start(first);
  }
  GStreamerLine(const GStreamerLine&) = delete;
  GStreamerLine& operator=(const GStreamerLine&) = delete;
  ~GStreamerLine() {
    gst_element_set_state(_pipeline, GST_STATE_NULL);
    gst_object_unref(_pad);
    gst_object_unref(_pipeline);
  }

  /// Takes the buffer over.
  void push(GstBuffer* buffer) { gst_pad_push(_pad, buffer); }

 private:
  void start(GstElement* first) {
    gst_element_set_state(_pipeline, GST_STATE_PLAYING);
    _pad = gst_pad_new("src", GST_PAD_SRC);
    gst_pad_set_active(_pad, TRUE);
    GstPad* const target = gst_element_get_static_pad(first, "sink");
    gst_pad_link(_pad, target);
    gst_object_unref(target);

    gst_pad_push_event(_pad, gst_event_new_stream_start("camera"));
    GstCaps* const caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "YUY2", "width", G_TYPE_INT, 1440,
                                              "height", G_TYPE_INT, 1080, "framerate", GST_TYPE_FRACTION, 30, 1,
                                              "pixel-aspect-ratio", GST_TYPE_FRACTION, 4, 3, nullptr);
    gst_pad_push_event(_pad, gst_event_new_caps(caps));
    gst_caps_unref(caps);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(_pad, gst_event_new_segment(&segment));
  }

  static GstFlowReturn take(GstAppSink* sink, gpointer line) {
    GstSample* const sample = gst_app_sink_pull_sample(sink);
    const auto& self = *static_cast<GStreamerLine*>(line);
    self._callback(self._context, static_cast<std::int64_t>(GST_BUFFER_PTS(gst_sample_get_buffer(sample))));
    gst_sample_unref(sample);
    return GST_FLOW_OK;
  }

  const Callback _callback;
  void* const _context;
  GstElement* _pipeline;
  GstElement* _sink;
  GstPad* _pad = nullptr;
};

}  // namespace bench

#pragma once

// A pipeline of a test, and the machine whose devices it sees.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "support/FrameworkTest.h"
#include "support/Rigs.h"

struct SampleUnref {
  void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
using SamplePtr = std::unique_ptr<GstSample, SampleUnref>;

inline GstBuffer* bufferOf(const SamplePtr& sample) {
  return gst_sample_get_buffer(sample.get());
}

inline std::string bytesOf(const SamplePtr& sample) {
  GstBuffer* const buffer = bufferOf(sample);
  std::string bytes(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}

/// Runs a pipeline of gst-launch's words. Waits for 20 seconds at most for anything.
class Pipeline {
 public:
  explicit Pipeline(const std::string& words) : _pipeline(gst_parse_launch(words.c_str(), nullptr)) {}
  ~Pipeline() {
    gst_element_set_state(_pipeline, GST_STATE_NULL);
    gst_object_unref(_pipeline);
  }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  GstElement* get() const { return _pipeline; }
  /// The element of that name, which the pipeline keeps.
  GstElement* element(const char* name) const {
    GstElement* const found = gst_bin_get_by_name(GST_BIN(_pipeline), name);
    gst_object_unref(found);
    return found;
  }
  bool play() const { return gst_element_set_state(_pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE; }

  /// The next sample of an appsink; fails the test when none comes.
  SamplePtr pull(const char* sink = "video") const {
    SamplePtr sample(gst_app_sink_try_pull_sample(GST_APP_SINK(element(sink)), 20 * GST_SECOND));
    if (!sample) ADD_FAILURE() << sink << " gets nothing: " << text(GST_MESSAGE_ERROR, 0);
    return sample;
  }

  /// The text of the next error or warning; empty without one, and for other messages that came.
  std::string text(GstMessageType type, GstClockTime timeout = 20 * GST_SECOND) const {
    GstBus* const bus = gst_element_get_bus(_pipeline);
    GstMessage* const message = gst_bus_timed_pop_filtered(bus, timeout, type);
    gst_object_unref(bus);
    if (!message) return "no message";
    GError* error = nullptr;
    if (type == GST_MESSAGE_ERROR) gst_message_parse_error(message, &error, nullptr);
    if (type == GST_MESSAGE_WARNING) gst_message_parse_warning(message, &error, nullptr);
    std::string text = error ? error->message : "";
    g_clear_error(&error);
    gst_message_unref(message);
    return text;
  }

 private:
  GstElement* const _pipeline;
};

class GStreamerTest : public FrameworkTest {
 protected:
  static void SetUpTestSuite() {
    setenv("GST_REGISTRY", AVC_GST_REGISTRY, 1);
    setenv("BRV_MODULE", AVC_MODULE_PATH, 1);
    gst_init(nullptr, nullptr);
    // Not through the scanner, a program without the sanitizers that the plug-in may want.
    GstPlugin* const plugin = gst_plugin_load_file(AVC_GST_PLUGIN, nullptr);
    ASSERT_TRUE(plugin);
    gst_object_unref(plugin);
  }
  GStreamerTest() {
    zThread::SetSleepFunction([](unsigned) {});
    zTrace::Default().SetSink([](const char*) {});
  }
  ~GStreamerTest() override {
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  static std::string camera(const std::string& more = "video format = 96x48 yuvs, rates 30\n") {
    return "[device]\nid = cam\nname = Cam\nmedia = video\n" + more;
  }
};

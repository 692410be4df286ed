// Captures from a camera with GStreamer. Usage: live_gstreamer CAMERA TIMES FRAMES ELEMENTS [copy], with the elements
// between the camera and the application's sink, each with a "!" after it. With `copy`, the application copies the
// picture into memory of its own, as it must when it needs it for longer than the camera can spare the buffer.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "../CameraPictures.h"
#include "../Clocks.h"
#include "Take.h"

namespace {

constexpr std::size_t RowBytes = bench::CameraWidth * 2;
constexpr std::size_t PictureBytes = RowBytes * bench::CameraHeight;

struct Application {
  bench::Take take;
  std::vector<std::uint8_t> own;  ///< for one picture, as long as it is in use; empty for none

  void receive(const std::uint8_t* pixels, std::int64_t arrival) {
    if (!own.empty()) {
      std::memcpy(own.data(), pixels, PictureBytes);
      pixels = own.data();
      arrival = bench::now();
    }
    take.frame(pixels, RowBytes, arrival);
  }
};

GstFlowReturn receive(GstAppSink* sink, gpointer application) {
  const std::int64_t arrival = bench::now();
  GstSample* const sample = gst_app_sink_pull_sample(sink);
  GstMapInfo map;
  if (gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ)) {
    if (map.size >= PictureBytes) static_cast<Application*>(application)->receive(map.data, arrival);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  gst_init(nullptr, nullptr);
  const std::string elements = "pipewiresrc target-object=\"" + std::string(argv[1]) + "\" ! " + argv[4] +
                               " appsink name=sink sync=false caps=video/x-raw,format=YUY2";
  GError* error = nullptr;
  GstElement* const pipeline = gst_parse_launch(elements.c_str(), &error);
  if (error) {
    std::fprintf(stderr, "%s\n", error->message);
    return 1;
  }
  Application application{bench::Take(argv + 2), std::vector<std::uint8_t>(argc > 5 ? PictureBytes : 0)};
  GstElement* const sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = receive;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, &application, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  application.take.wait();
  application.take.print("");
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
}

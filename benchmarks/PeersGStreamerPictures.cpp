// GStreamer's elements for the same pictures. They leave Motion JPEG in full range.

#include <gst/gst.h>

#include <memory>
#include <string>

#include "CameraPictures.h"
#include "Work.h"

namespace {

/// A source pad in front of elements that end in a sink, all on the thread that pushes.
class Conversion {
 public:
  Conversion(const std::string& elements, const std::string& caps) {
    gst_init(nullptr, nullptr);
    _bin = gst_parse_bin_from_description(
        (elements + " ! video/x-raw,format=YUY2 ! fakesink sync=false async=false").c_str(), TRUE, nullptr);
    gst_object_ref_sink(_bin);
    gst_element_set_state(_bin, GST_STATE_PLAYING);
    gst_pad_set_active(_pad, TRUE);
    GstPad* const target = gst_element_get_static_pad(_bin, "sink");
    gst_pad_link(_pad, target);
    gst_object_unref(target);

    gst_pad_push_event(_pad, gst_event_new_stream_start("camera"));
    GstCaps* const stated = gst_caps_from_string((caps + ",width=1920,height=1080,framerate=30/1").c_str());
    gst_pad_push_event(_pad, gst_event_new_caps(stated));
    gst_caps_unref(stated);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(_pad, gst_event_new_segment(&segment));
  }
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;
  ~Conversion() {
    gst_element_set_state(_bin, GST_STATE_NULL);
    gst_object_unref(_pad);
    gst_object_unref(_bin);
  }

  void push(const std::vector<std::uint8_t>& bytes) {
    GstBuffer* const buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
    GST_BUFFER_PTS(buffer) = 0;
    if (gst_pad_push(_pad, buffer) != GST_FLOW_OK) std::abort();
  }

 private:
  GstElement* _bin;
  GstPad* const _pad = gst_pad_new("src", GST_PAD_SRC);
};

bench::Run makeRun(const std::string& elements, const std::string& caps, std::vector<std::uint8_t> bytes) {
  const auto conversion = std::make_shared<Conversion>(elements, caps);
  return bench::repeat([conversion, bytes = std::move(bytes)] { conversion->push(bytes); });
}

bench::Run makeRaw(const std::string& format, std::size_t size) {
  std::vector<std::uint8_t> bytes = bench::rawPicture(4);
  bytes.resize(size);
  return makeRun("videoconvert", "video/x-raw,format=" + format, std::move(bytes));
}

constexpr std::size_t Pixels = std::size_t{bench::CameraWidth} * bench::CameraHeight;
const bench::Definition nv12{{"picture NV12/GStreamer", 1, 1, [] { return makeRaw("NV12", Pixels * 3 / 2); }}};
const bench::Definition rgbx{{"picture RGBx/GStreamer", 1, 1, [] { return makeRaw("RGBx", Pixels * 4); }}};
const bench::Definition jpeg{{"picture Motion JPEG/GStreamer", 1, 1, [] {
                                return makeRun("jpegdec ! videoconvert", "image/jpeg", bench::compressedPicture());
                              }}};

}  // namespace

// GStreamer's queue between the camera's thread and the application's sink.

#include "GStreamerLine.h"
#include "Line.h"

namespace {

class QueueLine final : public bench::Line {
 public:
  QueueLine(bench::Arrival arrival, void* context) : _line(true, arrival, context) {}

  void capture(std::int64_t time) override {
    GstBuffer* const buffer = gst_buffer_new();
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(time);
    _line.push(buffer);
  }

 private:
  bench::GStreamerLine _line;
};

const bench::LineDefinition queueLine{{"GStreamer queue", [](bench::Arrival arrival, void* context) {
                                         return std::make_unique<QueueLine>(arrival, context);
                                       }}};

}  // namespace

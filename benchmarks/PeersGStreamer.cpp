// GStreamer: a buffer pushed through a pad to an application's sink, whose callback runs on the same thread.

#include <memory>

#include "GStreamerLine.h"
#include "Work.h"

namespace {

bench::Run makeVideoFrame() {
  const auto sum = std::make_shared<std::int64_t>(0);
  const auto line = std::make_shared<bench::GStreamerLine>(
      false, [](void* context, std::int64_t time) { *static_cast<std::int64_t*>(context) += time; }, sum.get());
  const std::shared_ptr<GstBuffer> buffer(gst_buffer_new_allocate(nullptr, 1440 * 1080 * 2, nullptr), gst_buffer_unref);
  GST_BUFFER_PTS(buffer.get()) = 1;
  return bench::repeat([sum, line, buffer] { line->push(gst_buffer_ref(buffer.get())); });
}

const bench::Definition videoFrame{{"video frame/GStreamer", 1000, 1, makeVideoFrame}};

}  // namespace

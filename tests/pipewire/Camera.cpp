#include "Camera.h"

#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>

namespace test::pipewire {
namespace {

/// The formats of pictures, built in `builder`.
std::vector<const spa_pod*> formatsOf(const std::vector<Picture>& pictures, spa_fraction rate,
                                      spa_pod_builder& builder) {
  std::vector<const spa_pod*> formats;
  for (const Picture& picture : pictures) {
    const spa_rectangle size{picture.width, picture.height};
    if (picture.packing == MotionJPEG) {
      spa_video_info_mjpg info{size, rate, {}};
      formats.push_back(spa_format_video_mjpg_build(&builder, SPA_PARAM_EnumFormat, &info));
    } else if (picture.packing == H264) {
      spa_video_info_h264 info{};
      info.size = size, info.framerate = rate;
      formats.push_back(spa_format_video_h264_build(&builder, SPA_PARAM_EnumFormat, &info));
    } else {
      spa_video_info_raw info{};
      info.format = static_cast<spa_video_format>(picture.packing), info.size = size, info.framerate = rate;
      formats.push_back(spa_format_video_raw_build(&builder, SPA_PARAM_EnumFormat, &info));
    }
  }
  return formats;
}

}  // namespace

void Camera::plug() {
  Properties properties = _settings.properties;
  properties.insert({{PW_KEY_MEDIA_CLASS, "Video/Source"},
                     {PW_KEY_MEDIA_ROLE, "Camera"},
                     {PW_KEY_NODE_NAME, _settings.name},
                     {PW_KEY_NODE_DESCRIPTION, _settings.description}});
  std::uint8_t memory[4096];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
  Stream::plug(properties, PW_STREAM_FLAG_DRIVER, formatsOf(_settings.pictures, _settings.rate, builder));
}

void Camera::offer(const std::vector<Picture>& pictures) {
  client().locked([&] {
    std::uint8_t memory[4096];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
    update(formatsOf(pictures, _settings.rate, builder));
  });
}

void Camera::formatChosen(const spa_pod& format) {
  spa_video_info info{};
  spa_format_video_parse(&format, &info);
  const bool isRaw = info.media_subtype == SPA_MEDIA_SUBTYPE_raw;
  const spa_rectangle size = isRaw ? info.info.raw.size : info.info.mjpg.size;
  _picture = {isRaw ? static_cast<std::uint32_t>(info.info.raw.format) : MotionJPEG, size.width, size.height};
  std::uint32_t stride = 0;
  const std::size_t bytes = packed(_picture, 0, stride).size() + 65'536;  // JPEGs differ in size
  std::uint8_t memory[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
  update({static_cast<spa_pod*>(spa_pod_builder_add_object(
              &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
              SPA_POD_CHOICE_RANGE_Int(8, 2, 32), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
              SPA_POD_Int(static_cast<int>(bytes)), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(static_cast<int>(stride)))),
          static_cast<spa_pod*>(spa_pod_builder_add_object(
              &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
              SPA_PARAM_META_size, SPA_POD_Int(static_cast<int>(sizeof(spa_meta_header)))))});
}

void Camera::streamingChanged(bool isStreaming) {
  setPeriod(isStreaming ? period() : 0);
}

std::int64_t Camera::timeOf(std::uint64_t number) const {
  std::lock_guard lock(_lock);
  return _taken[number % _taken.size()].time;
}

std::optional<Camera::Taken> Camera::takenAt(std::int64_t time) const {
  std::lock_guard lock(_lock);
  for (std::uint64_t number = _number, i = 0; i < std::min<std::uint64_t>(number, _taken.size()); ++i) {
    const Taken& taken = _taken[(number - 1 - i) % _taken.size()];
    if (std::abs(taken.time - time) < 12'000) return taken;  // a tick of 1/90,000 s
  }
  return {};
}

void Camera::tick() {
  const std::uint64_t number = _number;
  {
    std::lock_guard lock(_lock);
    _taken[number % _taken.size()] = {number, run(), now()};
    ++_number;
  }
  if (_settings.loseEvery == 0 || (number + 1) % _settings.loseEvery != 0) pw_stream_trigger_process(stream());
}

void Camera::process() {
  pw_buffer* const buffer = pw_stream_dequeue_buffer(stream());
  if (!buffer) return;
  const std::uint64_t number = _number - 1;
  std::uint32_t stride = 0;
  std::vector<std::uint8_t> bytes = packed(_picture, number, stride);
  if (_settings.corruptEvery > 0 && (number + 1) % _settings.corruptEvery == 0) std::ranges::fill(bytes, 0x55);
  spa_data& memory = buffer->buffer->datas[0];
  std::ranges::copy(bytes, static_cast<std::uint8_t*>(memory.data));
  *memory.chunk = {0, static_cast<std::uint32_t>(bytes.size()), static_cast<std::int32_t>(stride), 0};
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    *header = {0, 0, timeOf(number), 0, number};
  }
  pw_stream_queue_buffer(stream(), buffer);
  ++_sent;
}

}  // namespace test::pipewire

// The cameras of the benchmark, in a process of their own: 1920 x 1080 at 30 frames a second in YUYV and in Motion
// JPEG. Usage: live_camera TIMES, with the file of the pictures' times, which is there once the cameras are; runs until
// it is ended.

#include <pipewire/Stream.h>
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "../CameraPictures.h"
#include "NumberedPictures.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::int64_t FrameInterval = 1'000'000'000 / 30;

Bytes numberedPicture(std::size_t number, std::size_t pixelBytes) {
  Bytes picture = bench::rawPicture(pixelBytes);
  bench::writeNumber(number, picture.data(), pixelBytes, pixelBytes * bench::CameraWidth);
  return picture;
}

class LiveCamera final : public test::pipewire::Stream {
 public:
  LiveCamera(const std::string& name, bool isCompressed, bench::PictureTimes& times) : _times(times) {
    for (std::size_t number = 0; number < bench::PictureCount; ++number) {
      _pictures.push_back(isCompressed ? bench::compressedPicture(numberedPicture(number, 3))
                                       : numberedPicture(number, 2));
      _largest = std::max(_largest, _pictures.back().size());
    }
    if (!isCompressed) _stride = bench::CameraWidth * 2;

    std::uint8_t memory[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
    const spa_rectangle size{bench::CameraWidth, bench::CameraHeight};
    spa_video_info_raw raw{};
    raw.format = SPA_VIDEO_FORMAT_YUY2, raw.size = size, raw.framerate = {30, 1};
    spa_video_info_mjpg compressed{size, {30, 1}, {}};
    plug({{PW_KEY_MEDIA_CLASS, "Video/Source"},
          {PW_KEY_MEDIA_ROLE, "Camera"},
          {PW_KEY_NODE_NAME, name},
          {PW_KEY_NODE_DESCRIPTION, name},
          // While the other one is captured from, a session manager would let it sleep, and all programs hear of that.
          {"session.suspend-timeout-seconds", "0"}},
         PW_STREAM_FLAG_DRIVER,
         {isCompressed ? spa_format_video_mjpg_build(&builder, SPA_PARAM_EnumFormat, &compressed)
                       : spa_format_video_raw_build(&builder, SPA_PARAM_EnumFormat, &raw)});
  }
  ~LiveCamera() override { pull(); }

 private:
  void formatChosen(const spa_pod&) override {
    std::uint8_t memory[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
    update({static_cast<spa_pod*>(spa_pod_builder_add_object(
                &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
                SPA_POD_CHOICE_RANGE_Int(8, 2, 32), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
                SPA_POD_Int(static_cast<int>(_largest)), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(_stride))),
            static_cast<spa_pod*>(spa_pod_builder_add_object(
                &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
                SPA_PARAM_META_size, SPA_POD_Int(static_cast<int>(sizeof(spa_meta_header)))))});
  }
  void streamingChanged(bool isStreaming) override { setPeriod(isStreaming ? FrameInterval : 0); }
  void tick() override { pw_stream_trigger_process(stream()); }

  /// A picture is taken when all of it is in memory, as a driver says that has had it written there.
  void process() override {
    pw_buffer* const buffer = pw_stream_dequeue_buffer(stream());
    if (!buffer) return;
    const std::size_t which = _number % bench::PictureCount;
    spa_data& memory = buffer->buffer->datas[0];
    std::ranges::copy(_pictures[which], static_cast<std::uint8_t*>(memory.data));
    *memory.chunk = {0, static_cast<std::uint32_t>(_pictures[which].size()), _stride, 0};
    const std::int64_t time = test::pipewire::now();
    _times[which] = time;
    if (auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
      *header = {0, 0, time, 0, _number};
    }
    ++_number;
    pw_stream_queue_buffer(stream(), buffer);
  }

  bench::PictureTimes& _times;
  std::vector<Bytes> _pictures;
  std::size_t _largest = 0;
  std::int32_t _stride = 0;
  std::uint64_t _number = 0;
};

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) return 2;
  const std::string file = argv[1];
  bench::PictureTimes& times = bench::pictureTimes(file + ".new");
  const LiveCamera raw("YUYV", false, times);
  const LiveCamera compressed("Motion JPEG", true, times);
  std::filesystem::rename(file + ".new", file);
  for (;;) pause();
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

#include "capture/PictureStream.h"

#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/param.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <array>
#include <utility>

#include "capture/BufferMemory.h"

namespace hardware::pipewire {
namespace {

struct Frame final : VideoFrame {
  Frame(PictureReader& pictureReader, const PackedPicture& packed) : reader(pictureReader), picture(packed) {}

  bool drawInto(CVPixelBufferRef pixelBuffer) const override {
    return reader.write(picture, static_cast<std::uint8_t*>(CVPixelBufferGetBaseAddress(pixelBuffer)),
                        CVPixelBufferGetBytesPerRow(pixelBuffer));
  }

  PictureReader& reader;
  const PackedPicture& picture;
};

const spa_meta_header* headerOf(const spa_buffer& buffer) {
  return static_cast<const spa_meta_header*>(
      spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)));
}

PictureHeader read(const spa_meta_header* header) {
  PictureHeader read;
  if (!header) return read;
  read.time = header->pts;
  if (header->seq != SPA_ID_INVALID && header->seq != UINT64_MAX) read.number = header->seq;
  return read;
}

}  // namespace

PictureStream::PictureStream(Sink& sink, Admission& admission, EventLoop& loop, CameraFormat format,
                             CMTime frameDuration)
    : _sink(sink), _admission(admission), _loop(loop), _wanted(std::move(format)), _wantedDuration(frameDuration) {}

void PictureStream::select(CameraFormat format, CMTime frameDuration) {
  _wanted = std::move(format);
  _wantedDuration = frameDuration;
}

Properties PictureStream::properties() const {
  return {{PW_KEY_MEDIA_TYPE, "Video"}, {PW_KEY_MEDIA_CATEGORY, "Capture"}, {PW_KEY_MEDIA_ROLE, "Camera"}};
}

pw_stream_flags PictureStream::flags() const {
  return static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS);
}

std::vector<const spa_pod*> PictureStream::request(spa_pod_builder& builder) const {
  return requestFor(_wanted, _wantedDuration, builder);
}

void PictureStream::attach(pw_stream* stream) {
  static const pw_stream_events events = [] {
    pw_stream_events made{};
    made.version = PW_VERSION_STREAM_EVENTS;
    made.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
      auto& self = *static_cast<PictureStream*>(data);
      if (id == SPA_PARAM_Format && param) self._loop.guard([&] { self.negotiated(param); });
    };
    made.add_buffer = [](void*, pw_buffer* buffer) { mapBuffer(*buffer); };
    made.remove_buffer = [](void*, pw_buffer* buffer) { unmapBuffer(*buffer); };
    made.process = [](void* self) { static_cast<PictureStream*>(self)->process(); };
    return made;
  }();
  _stream = stream;
  _format = {};
  pw_stream_add_listener(_stream, &_listener, &events, this);
}

runtime::Nanoseconds PictureStream::longestSilence() const {
  if (!CMTIME_IS_NUMERIC(_format.frameDuration)) return runtime::Never;
  constexpr runtime::Nanoseconds usual = 800'000'000;
  const double duration = CMTimeGetSeconds(_format.frameDuration);
  return std::max(usual, static_cast<runtime::Nanoseconds>(3 * duration * runtime::NanosecondsPerSecond));
}

void PictureStream::negotiated(const spa_pod* format) {
  _format = readNegotiated(format);
  _timescale = videoTimescale(_format.frameDuration);
  _duration = CMTIME_IS_NUMERIC(_format.frameDuration)
                  ? CMTimeConvertScale(_format.frameDuration, _timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero)
                  : kCMTimeInvalid;
  _clock.restart();
  const bool isReadable = _format.packing != Packing::none;
  _admission.problem = isReadable ? "" : "another program uses it in a format that cannot be read here";

  constexpr int readable = (1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_DmaBuf);
  std::array<std::uint8_t, 1024> memory;
  spa_pod_builder builder;
  spa_pod_builder_init(&builder, memory.data(), memory.size());
  const spa_pod* params[] = {
      static_cast<spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
                                                       SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(8, 2, 16),
                                                       SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(readable))),
      static_cast<spa_pod*>(spa_pod_builder_add_object(
          &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
          SPA_PARAM_META_size, SPA_POD_Int(static_cast<int>(sizeof(spa_meta_header)))))};
  pw_stream_update_params(_stream, params, 2);
}

void PictureStream::process() {
  while (_admission.admits() && _admission.problem.empty()) {
    pw_buffer* const buffer = pw_stream_dequeue_buffer(_stream);
    if (!buffer) return;
    deliver(*buffer->buffer);
    pw_stream_queue_buffer(_stream, buffer);
  }
  // Another device's, or too late, or of no use: back they go.
  while (pw_buffer* const buffer = pw_stream_dequeue_buffer(_stream)) pw_stream_queue_buffer(_stream, buffer);
}

void PictureStream::deliver(const spa_buffer& buffer) {
  const runtime::Nanoseconds now = runtime::Scheduler::current().now();
  const spa_meta_header* header = headerOf(buffer);
  const PictureClock::Stamp stamp = _clock.stamp(read(header), now, _format.frameDuration);
  _admission.noteSample(now);
  for (std::uint64_t i = 1; i <= stamp.lostBefore && _admission.admits(); ++i) {
    const auto share = static_cast<runtime::Nanoseconds>(i),
               parts = static_cast<runtime::Nanoseconds>(stamp.lostBefore) + 1;
    const runtime::Nanoseconds time = stamp.previous + (stamp.time - stamp.previous) * share / parts;
    _sink.videoFrameLost(timeOf(time, _timescale), _duration);
  }
  if (!_admission.admits()) return;

  const CMTime time = timeOf(stamp.time, _timescale);
  const PackedPicture picture = pictureIn(buffer, _format);
  const bool isCorrupted = header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED);
  if (isCorrupted || picture.planeCount == 0) return _sink.videoFrameLost(time, _duration);
  const BufferReading reading(buffer);
  Frame frame(_reader, picture);
  frame.presentationTime = time;
  frame.duration = _duration;
  frame.width = _format.width;
  frame.height = _format.height;
  frame.color = colorWhenWritten(picture);
  _sink.videoFrameCaptured(frame);
}

PackedPicture PictureStream::pictureIn(const spa_buffer& buffer, const NegotiatedPicture& format) {
  PackedPicture picture;
  picture.packing = format.packing;
  picture.width = format.width;
  picture.height = format.height;
  picture.color = format.color.value_or(VideoColor());
  const std::size_t count = std::min<std::size_t>(buffer.n_datas, picture.planes.size());
  for (std::size_t i = 0; i < count; ++i) {
    const spa_data& part = buffer.datas[i];
    const ChunkBounds chunk = boundsOf(part);
    const bool isUnstated = chunk.size == 0 && part.type == SPA_DATA_DmaBuf;
    const std::uint32_t size = isUnstated ? part.maxsize - chunk.offset : chunk.size;
    if (!part.data || size == 0 || chunk.stride < 0 || (chunk.flags & SPA_CHUNK_FLAG_CORRUPTED)) return picture;
    picture.planes[i] = {static_cast<const std::uint8_t*>(part.data) + chunk.offset, size,
                         static_cast<std::size_t>(chunk.stride)};
  }
  picture.planeCount = static_cast<int>(count);
  return picture;
}

}  // namespace hardware::pipewire

#include "support/MediaReader.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include <map>

namespace {

void addFrame(DecodedMedia& media, const AVFrame& frame, const AVStream& stream) {
  if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    std::string planes(static_cast<std::size_t>(av_image_get_buffer_size(format, frame.width, frame.height, 1)), '\0');
    av_image_copy_to_buffer(reinterpret_cast<std::uint8_t*>(planes.data()), static_cast<int>(planes.size()), frame.data,
                            frame.linesize, format, frame.width, frame.height, 1);
    media.pictures.push_back(std::move(planes));
    media.stamps.push_back(frame.best_effort_timestamp);
    media.ticksPerSecond = stream.time_base.den / stream.time_base.num;
    media.width = frame.width, media.height = frame.height;
    media.aspectNumerator = stream.sample_aspect_ratio.num, media.aspectDenominator = stream.sample_aspect_ratio.den;
  } else if (frame.format == AV_SAMPLE_FMT_S16) {
    if (media.sound.empty()) media.soundSeconds = static_cast<double>(frame.pts) * av_q2d(stream.time_base);
    media.sound.append(reinterpret_cast<const char*>(frame.data[0]), static_cast<std::size_t>(frame.nb_samples) * 4);
  }
}

}  // namespace

DecodedMedia decodeMedia(const std::string& path) {
  DecodedMedia media;
  AVFormatContext* file = nullptr;
  if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) < 0) return media;
  std::map<int, AVCodecContext*> decoders;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  const auto decode = [&](int index, const AVPacket* data) {
    AVCodecContext*& decoder = decoders[index];
    const AVStream& stream = *file->streams[index];
    const AVCodec* const codec = avcodec_find_decoder(stream.codecpar->codec_id);
    if (!decoder) {
      decoder = avcodec_alloc_context3(codec);
      avcodec_parameters_to_context(decoder, stream.codecpar);
      decoder->pkt_timebase = stream.time_base;
      avcodec_open2(decoder, codec, nullptr);
    }
    avcodec_send_packet(decoder, data);
    while (avcodec_receive_frame(decoder, frame) >= 0) addFrame(media, *frame, stream);
  };
  avformat_find_stream_info(file, nullptr);
  while (av_read_frame(file, packet) >= 0) {
    decode(packet->stream_index, packet);
    av_packet_unref(packet);
  }
  for (unsigned index = 0; index < file->nb_streams; ++index) decode(static_cast<int>(index), nullptr);
  for (auto& [index, decoder] : decoders) avcodec_free_context(&decoder);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avformat_close_input(&file);
  return media;
}

#include "record/Encoding.h"

#include <algorithm>
#include <string_view>

#include "common/Failure.h"
#include "record/AV.h"

namespace brvhost {

namespace {

constexpr int LiveBitRate = 8'000'000, SoundBitRate = 192'000;

struct Defaults {
  const char* target;  ///< the ending of a name, or the scheme of a URL
  const char* container;
  const char* video;
  const char* audio;
};

constexpr Defaults Table[] = {
    {"mkv", "matroska", "utvideo", "pcm_s16le"},
    {"mov", "mov", "mjpeg", "pcm_s16le"},
    {"mp4", "mp4", "libx264", "aac"},
    {"webm", "webm", "libvpx", "libopus"},
    {"ts", "mpegts", "libx264", "aac"},
    {"y4m", "yuv4mpegpipe", "wrapped_avframe", ""},
    {"wav", "wav", "", "pcm_s16le"},
    {"srt", "mpegts", "libx264", "aac"},
    {"udp", "mpegts", "libx264", "aac"},
    {"tcp", "mpegts", "libx264", "aac"},
    {"rtmp", "flv", "libx264", "aac"},
};

const Defaults& defaultsFor(const std::string& target) {
  std::string key = "mkv";
  if (isURL(target)) {
    key = target.substr(0, target.find(':'));
  } else if (target != "-") {
    const std::size_t dot = target.rfind('.'), slash = target.rfind('/');
    const bool hasEnding = dot != target.npos && (slash == target.npos || dot > slash);
    key = hasEnding ? target.substr(dot + 1) : "";
  }
  for (const Defaults& defaults : Table) {
    if (av_strcasecmp(key.c_str(), defaults.target) == 0) return defaults;
  }
  throw UsageError("\"" + target +
                   "\" is no target to record to: a file ends with .mkv, .mov, .mp4, .webm, .ts, .y4m " +
                   "or .wav, and a URL begins with srt, udp, tcp or rtmp");
}

const AVCodec* encoderNamed(const std::string& name, AVMediaType type, const AVOutputFormat& container) {
  const AVCodec* encoder = avcodec_find_encoder_by_name(name.c_str());
  const AVCodecDescriptor* const codec = encoder ? nullptr : avcodec_descriptor_get_by_name(name.c_str());
  if (codec) encoder = avcodec_find_encoder(codec->id);
  if (!encoder || encoder->type != type) {
    throw UsageError("there is no " + std::string(av_get_media_type_string(type)) + " codec \"" + name + "\"");
  }
  const bool isKnown = container.codec_tag && av_codec_get_tag(container.codec_tag, encoder->id) != 0;
  if (!isKnown && avformat_query_codec(&container, encoder->id, FF_COMPLIANCE_NORMAL) == 0) {
    throw UsageError(std::string(container.name) + " takes no " + name);
  }
  return encoder;
}

bool isAny(const AVCodec& encoder, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), encoder.name) != names.end();
}

}  // namespace

bool isURL(const std::string& target) {
  return target.find("://") != target.npos;
}

Encoding encodingFor(const std::string& target, const std::string& videoCodec, const std::string& audioCodec) {
  const Defaults& defaults = defaultsFor(target);
  Encoding encoding{.container = av_guess_format(defaults.container, nullptr, nullptr), .isLive = isURL(target)};
  if (!encoding.container) throw Failure(std::string("this FFmpeg writes no ") + defaults.container);
  const auto choose = [&](const std::string& wanted, const char* customary, AVMediaType type) -> const AVCodec* {
    if (!*customary) {
      if (wanted.empty()) return nullptr;
      throw UsageError(target + " takes no " + av_get_media_type_string(type));
    }
    return encoderNamed(wanted.empty() ? customary : wanted, type, *encoding.container);
  };
  encoding.video = choose(videoCodec, defaults.video, AVMEDIA_TYPE_VIDEO);
  encoding.audio = choose(audioCodec, defaults.audio, AVMEDIA_TYPE_AUDIO);
  return encoding;
}

double pictureBytesPerSecond(const AVCodec& encoder, double pixels, double rate) {
  double bitsPerPixel = 8;  // lossless
  if (isAny(encoder, {"wrapped_avframe", "rawvideo"})) bitsPerPixel = 16;
  if (isAny(encoder, {"mjpeg"})) bitsPerPixel = 2;
  if (isAny(encoder, {"libx264", "libx265"})) bitsPerPixel = 1;
  if (isAny(encoder, {"libvpx", "libvpx-vp9"})) return LiveBitRate / 8.0;
  return pixels * rate * bitsPerPixel / 8;
}

double soundBytesPerSecond(const AVCodec& encoder) {
  return isAny(encoder, {"pcm_s16le"}) ? 4.0 * 44'100 : SoundBitRate / 8.0;
}

void tune(AVCodecContext& encoder, bool isLive) {
  const AVCodec& codec = *encoder.codec;
  const auto set = [&](const char* name, const char* value) { av_opt_set(encoder.priv_data, name, value, 0); };
  encoder.thread_count = 0;  // as many as there are cores
  if (codec.type == AVMEDIA_TYPE_AUDIO) encoder.bit_rate = SoundBitRate;
  if (isAny(codec, {"libx264", "libx265"})) {
    set("preset", "ultrafast");
    set("crf", isLive ? "23" : "20");
    if (isLive) set("tune", "zerolatency");
    encoder.max_b_frames = 0;  // so that stamps begin at 0, and stay in order
  } else if (isAny(codec, {"libvpx", "libvpx-vp9"})) {
    set("deadline", "realtime");
    set("cpu-used", "16");
    encoder.bit_rate = LiveBitRate;
  } else if (isAny(codec, {"mjpeg"})) {
    encoder.flags |= AV_CODEC_FLAG_QSCALE;
    encoder.global_quality = 3 * FF_QP2LAMBDA;
  }
}

}  // namespace brvhost

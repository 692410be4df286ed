#pragma once

// What a take is written as: the container that its target's name asks for, and the codecs in it.

#include <string>

struct AVCodec;
struct AVCodecContext;
struct AVOutputFormat;

namespace brvhost {

struct Encoding {
  const AVOutputFormat* container = nullptr;
  const AVCodec* video = nullptr;  ///< null: the container takes no picture
  const AVCodec* audio = nullptr;  ///< null: the container takes no sound
  bool isLive = false;             ///< somebody watches while it is written
};

/// Whether the target is no file: "srt://host:port".
bool isURL(const std::string& target);

/// For a file's name, of which the ending counts, a URL, or "-" for standard output. The codecs are FFmpeg's names;
/// empty, what suits the container and keeps up with 1080p30 on two cores. Throws UsageError.
Encoding encodingFor(const std::string& target, const std::string& videoCodec, const std::string& audioCodec);

/// About how much the encoder writes of common pictures, and of sound.
double pictureBytesPerSecond(const AVCodec& encoder, double pixels, double rate);
double soundBytesPerSecond(const AVCodec& encoder);

/// Sets what makes the encoder fast enough for live pictures and good enough to keep.
void tune(AVCodecContext& encoder, bool isLive);

}  // namespace brvhost

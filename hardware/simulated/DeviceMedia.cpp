#include "DeviceMedia.h"

#include <string>

#include "WAVReader.h"
#include "Y4MReader.h"

namespace hardware::simulated {
namespace {

constexpr FourCharCode TransportStream = 0x6D703274;  // 'mp2t'
constexpr FourCharCode Uncompressed = kCVPixelFormatType_422YpCbCr8_yuvs;

VideoFormat formatOf(const Y4MHeader& header, bool isMuxed) {
  VideoFormat format;
  format.mediaSubType = isMuxed ? TransportStream : Uncompressed;
  format.width = header.width;
  format.height = header.height;
  const double rate = 1 / CMTimeGetSeconds(header.frameDuration);
  format.frameRates.push_back({rate, rate, header.frameDuration, header.frameDuration});
  return format;
}

std::string sizeText(std::int32_t width, std::int32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

std::optional<std::string> misfit(const RigDevice& device, const MediaSource& media, const Y4MHeader& header) {
  const auto& formats = device.description.videoFormats;
  for (std::size_t i = 0; i < formats.size(); ++i) {
    const bool hasOwnSize = i < device.pictures.size() && device.pictures[i].width > 0;
    const std::int32_t width = hasOwnSize ? device.pictures[i].width : formats[i].width;
    const std::int32_t height = hasOwnSize ? device.pictures[i].height : formats[i].height;
    if (width != header.width || height != header.height) {
      return media.path + ": the clip's " + sizeText(header.width, header.height) + " is not the format's " +
             sizeText(width, height);
    }
  }
  return std::nullopt;
}

std::optional<std::string> misfit(const RigDevice& device, const MediaSource& media, const AudioFormat& clip) {
  for (const AudioFormat& format : device.description.audioFormats) {
    if (format.stream.mSampleRate != clip.stream.mSampleRate) {
      return media.path + ": the clip's sample rate is not the format's";
    }
  }
  return std::nullopt;
}

// Both clips' formats, as far as there are clips.
struct ClipFormats {
  std::optional<Y4MHeader> picture;
  std::optional<AudioFormat> sound;
};

Result<ClipFormats> clipFormats(const RigDevice& device) {
  ClipFormats formats;
  const DeviceDescription& described = device.description;
  if (const auto* media = std::get_if<MediaSource>(&device.picture);
      media && (described.hasVideo || described.isMuxed)) {
    auto reader = Y4MReader::open(media->path);
    if (!reader) return reader.failure();
    if (auto reason = misfit(device, *media, reader->header())) return Failure{*reason};
    formats.picture = reader->header();
  }
  if (const auto* media = std::get_if<MediaSource>(&device.sound); media && (described.hasAudio || described.isMuxed)) {
    auto reader = WAVReader::open(media->path);
    if (!reader) return reader.failure();
    if (auto reason = misfit(device, *media, reader->format())) return Failure{*reason};
    formats.sound = reader->format();
  }
  return formats;
}

}  // namespace

std::optional<std::string> adoptMediaFormats(RigDevice& device) {
  const auto clips = clipFormats(device);
  if (!clips) return clips.reason();
  DeviceDescription& described = device.description;
  if (clips->picture && described.videoFormats.empty()) {
    described.videoFormats.push_back(formatOf(*clips->picture, described.isMuxed && !described.hasVideo));
  }
  if (clips->picture && !described.pixelAspectRatio) {
    const PixelAspectRatio aspect = clips->picture->pixelAspectRatio;
    if (aspect.horizontal != aspect.vertical) described.pixelAspectRatio = aspect;
  }
  if (clips->sound && described.audioFormats.empty()) described.audioFormats.push_back(*clips->sound);
  return std::nullopt;
}

std::optional<std::string> mediaFailure(const RigDevice& device) {
  const auto clips = clipFormats(device);
  return clips ? std::nullopt : std::optional(clips.reason());
}

}  // namespace hardware::simulated

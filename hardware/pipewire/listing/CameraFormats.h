#pragma once

// The formats of a camera: what PipeWire says of them, as the frameworks list them, and what a stream asks for. Pure
// functions.

#include <Hardware.h>
#include <spa/pod/pod.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pictures/PackedPicture.h"

struct spa_pod_builder;

namespace hardware::pipewire {

/// One line of a camera's list.
struct CameraFormat {
  VideoFormat format;
  std::uint32_t code = 0;  ///< an spa_video_format; SPA_VIDEO_FORMAT_ENCODED for Motion JPEG
  bool statesRates = true;
};

struct CameraOffer {
  std::vector<CameraFormat> formats;    ///< those that can be captured
  std::vector<std::string> unreadable;  ///< the names of the codecs and packings that cannot
};

/// Reads what a node or a port offers. Large pictures come before small ones, and among those of one size the fastest
/// first, so that the first one of a size is the best. No two have the same title.
CameraOffer readCameraFormats(std::span<const spa_pod* const> offered);

/// The one that a host takes by itself: the first of the largest pictures that are not larger than 1920 x 1080.
std::size_t automaticFormat(std::span<const CameraFormat> formats);

/// `duration` held within the format's frame rates; the shortest one for an invalid duration.
CMTime heldWithin(const VideoFormat& format, CMTime duration);

/// What a stream takes, the best first: this format, then any that there is, since another program may hold the camera
/// at another one. `builder` owns what is returned.
std::vector<const spa_pod*> requestFor(const CameraFormat& format, CMTime frameDuration, spa_pod_builder& builder);

/// What a stream runs at in the end.
struct NegotiatedPicture {
  Packing packing = Packing::none;
  std::int32_t width = 0;
  std::int32_t height = 0;
  CMTime frameDuration = kCMTimeInvalid;  ///< invalid where the rate varies
  std::optional<VideoColor> color;        ///< as the server states it
};
NegotiatedPicture readNegotiated(const spa_pod* format);

}  // namespace hardware::pipewire

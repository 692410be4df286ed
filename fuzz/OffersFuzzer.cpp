// What a PipeWire server says of its cameras and microphones: formats as they come over the wire, and properties.

#include <spa/param/format.h>
#include <spa/param/param.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "FuzzInput.h"
#include "pipewire/listing/Catalog.h"

namespace {

using namespace hardware::pipewire;

/// A property's value: numbers, alone or as a choice among several, of a type that they may not be.
void addValue(fuzz::Input& input, std::vector<std::uint32_t>& words) {
  const auto type = input.PickValueInArray<std::uint32_t>(
      {SPA_TYPE_Id, SPA_TYPE_Int, SPA_TYPE_Rectangle, SPA_TYPE_Fraction, SPA_TYPE_Array, SPA_TYPE_String});
  const std::uint32_t width = type == SPA_TYPE_Rectangle || type == SPA_TYPE_Fraction ? 2 : 1;
  const auto count = input.ConsumeIntegralInRange<std::uint32_t>(0, 5);
  const std::uint32_t bytes = count * width * 4;
  if (input.ConsumeBool()) {
    const auto kind = input.ConsumeIntegralInRange<std::uint32_t>(0, 5);
    words.insert(words.end(), {16 + bytes, SPA_TYPE_Choice, kind, 0, width * 4, type});
  } else if (type == SPA_TYPE_Array) {
    const auto element = input.ConsumeIntegralInRange<std::uint32_t>(0, 12);
    words.insert(words.end(), {8 + bytes, SPA_TYPE_Array, element, SPA_TYPE_Id});
  } else {
    words.insert(words.end(), {input.ConsumeBool() ? width * 4 : bytes, type});
  }
  for (std::uint32_t i = 0; i < count * width; ++i) {
    words.push_back(input.ConsumeBool() ? input.ConsumeIntegralInRange<std::uint32_t>(0, 100)
                                        : static_cast<std::uint32_t>(input.number()));
  }
  if (words.size() % 2 == 1) words.push_back(0);
}

/// The library hands over only pods that lie whole within their message; what is in them is anybody's.
Pod podOf(fuzz::Input& input) {
  const bool isVideo = input.ConsumeBool();
  const auto subtype = input.PickValueInArray<std::uint32_t>(
      {SPA_MEDIA_SUBTYPE_raw, SPA_MEDIA_SUBTYPE_raw, SPA_MEDIA_SUBTYPE_mjpg, SPA_MEDIA_SUBTYPE_h264, 0, 77});
  std::vector<std::uint32_t> words{0, SPA_TYPE_Object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat};
  const auto addID = [&words](std::uint32_t key, std::uint32_t id) {
    words.insert(words.end(), {key, 0, 4, SPA_TYPE_Id, id, 0});
  };
  addID(SPA_FORMAT_mediaType, isVideo ? SPA_MEDIA_TYPE_video : SPA_MEDIA_TYPE_audio);
  addID(SPA_FORMAT_mediaSubtype, subtype);
  for (int i = input.ConsumeIntegralInRange(0, 5); i > 0; --i) {
    words.insert(words.end(), {input.PickValueInArray<std::uint32_t>(
                                   {SPA_FORMAT_VIDEO_format, SPA_FORMAT_VIDEO_size, SPA_FORMAT_VIDEO_framerate,
                                    SPA_FORMAT_AUDIO_format, SPA_FORMAT_AUDIO_rate, SPA_FORMAT_AUDIO_channels,
                                    SPA_FORMAT_AUDIO_position}),
                               0});
    addValue(input, words);
  }
  if (input.ConsumeBool())
    words[input.ConsumeIntegralInRange<std::size_t>(1, words.size() - 1)] = input.ConsumeIntegral<std::uint32_t>();
  words[0] = static_cast<std::uint32_t>((words.size() - 2) * 4);
  Pod pod;
  pod.words.resize(words.size() / 2);
  std::memcpy(pod.words.data(), words.data(), pod.words.size() * 8);
  return pod;
}

Source sourceOf(fuzz::Input& input) {
  constexpr const char* keys[] = {"node.name",     "node.description", "device.name",       "device.bus-path",
                                  "device.bus",    "device.serial",    "device.sysfs.path", "device.id",
                                  "device.api",    "device.vendor.id", "device.product.id", "api.libcamera.path",
                                  "api.v4l2.path", "device.devids"};
  Source source;
  source.kind = input.ConsumeBool() ? Source::Kind::camera : Source::Kind::microphone;
  for (const char* key : keys) {
    if (input.ConsumeBool()) source.properties[key] = input.ConsumeRandomLengthString(60);
  }
  for (int i = input.ConsumeIntegralInRange(0, 3); i > 0; --i) source.formats.push_back(podOf(input));
  return source;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  std::vector<Source> sources;
  while (input.isLeft() && sources.size() < 4) sources.push_back(sourceOf(input));

  for (const ListedDevice& device : catalogOf(sources).devices) {
    const hardware::DeviceDescription& described = device.description;
    fuzz::require(!described.uniqueID.empty() || !described.name.empty());
    fuzz::require(described.videoFormats.size() == device.cameraFormats.size());
    fuzz::require(described.audioFormats.size() == device.soundFormats.size());
    std::array<std::uint64_t, 1024> memory;
    for (const CameraFormat& line : device.cameraFormats) {
      spa_pod_builder builder;
      spa_pod_builder_init(&builder, memory.data(), sizeof memory);
      const CMTime duration = heldWithin(line.format, input.time());
      const auto request = requestFor(line, duration, builder);
      fuzz::require(readNegotiated(request.front()).width == line.format.width);
    }
    for (const SoundFormat& line : device.soundFormats) {
      spa_pod_builder builder;
      spa_pod_builder_init(&builder, memory.data(), sizeof memory);
      fuzz::require(requestFor(line, builder) != nullptr);
      fuzz::require(line.format.firstInput.value_or(0) + line.format.stream.mChannelsPerFrame <= line.streamChannels());
    }
  }
  for (const Source& source : sources) {
    for (const Pod& pod : source.formats) readNegotiated(pod.get());
  }
  return 0;
}

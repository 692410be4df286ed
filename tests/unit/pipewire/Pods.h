#pragma once

// Formats as PipeWire's programs offer them.

#include <spa/param/audio/format-utils.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <array>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <vector>

namespace pods {

/// Builds pods, and owns them.
class Offers {
 public:
  /// A camera's: with one rate, some rates, or, where `isRange`, any between the last two.
  void addPictures(std::uint32_t subtype, std::vector<std::uint32_t> codes, spa_rectangle size,
                   std::vector<spa_fraction> rates, bool isRange = false) {
    begin(SPA_MEDIA_TYPE_video, subtype);
    if (!codes.empty()) addChoice(SPA_FORMAT_VIDEO_format, SPA_CHOICE_Enum, codes, spa_pod_builder_id);
    const auto addFraction = [](spa_pod_builder* builder, spa_fraction rate) {
      return spa_pod_builder_fraction(builder, rate.num, rate.denom);
    };
    spa_pod_builder_add(&_builder, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), 0);
    if (!rates.empty())
      addChoice(SPA_FORMAT_VIDEO_framerate, isRange ? SPA_CHOICE_Range : SPA_CHOICE_Enum, rates, addFraction);
    end();
  }

  /// The same in any size between two.
  void addSizes(std::uint32_t code, spa_rectangle usual, spa_rectangle least, spa_rectangle most, spa_fraction rate) {
    begin(SPA_MEDIA_TYPE_video, SPA_MEDIA_SUBTYPE_raw);
    spa_pod_builder_add(&_builder, SPA_FORMAT_VIDEO_format, SPA_POD_Id(code), SPA_FORMAT_VIDEO_size,
                        SPA_POD_CHOICE_RANGE_Rectangle(&usual, &least, &most), SPA_FORMAT_VIDEO_framerate,
                        SPA_POD_Fraction(&rate), 0);
    end();
  }

  /// A microphone's: the device's own rate comes first.
  void addSound(std::uint32_t format, std::vector<std::int32_t> rates, bool isRange,
                std::vector<std::uint32_t> positions) {
    begin(SPA_MEDIA_TYPE_audio, SPA_MEDIA_SUBTYPE_raw);
    spa_pod_builder_add(&_builder, SPA_FORMAT_AUDIO_format, SPA_POD_Id(format), 0);
    addChoice(SPA_FORMAT_AUDIO_rate, isRange ? SPA_CHOICE_Range : SPA_CHOICE_Enum, rates, spa_pod_builder_int);
    spa_pod_builder_add(&_builder, SPA_FORMAT_AUDIO_channels, SPA_POD_Int(static_cast<int>(positions.size())),
                        SPA_FORMAT_AUDIO_position,
                        SPA_POD_Array(sizeof(std::uint32_t), SPA_TYPE_Id, static_cast<std::uint32_t>(positions.size()),
                                      positions.data()),
                        0);
    end();
  }

  const std::vector<const spa_pod*>& pods() const { return _pods; }

 private:
  void begin(std::uint32_t media, std::uint32_t subtype) {
    auto& memory = _memory.emplace_back();
    spa_pod_builder_init(&_builder, memory.data(), sizeof memory);
    spa_pod_builder_push_object(&_builder, &_object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(&_builder, SPA_FORMAT_mediaType, SPA_POD_Id(media), SPA_FORMAT_mediaSubtype,
                        SPA_POD_Id(subtype), 0);
  }

  template <typename T, typename Add>
  void addChoice(std::uint32_t key, std::uint32_t kind, const std::vector<T>& values, Add add) {
    spa_pod_frame choice;
    spa_pod_builder_prop(&_builder, key, 0);
    spa_pod_builder_push_choice(&_builder, &choice, kind, 0);
    add(&_builder, values.front());
    for (std::size_t i = kind == SPA_CHOICE_Range ? 1 : 0; i < values.size(); ++i) add(&_builder, values[i]);
    spa_pod_builder_pop(&_builder, &choice);
  }

  void end() { _pods.push_back(static_cast<const spa_pod*>(spa_pod_builder_pop(&_builder, &_object))); }

  std::deque<std::array<std::uint64_t, 128>> _memory;
  std::vector<const spa_pod*> _pods;
  spa_pod_builder _builder{};
  spa_pod_frame _object{};
};

}  // namespace pods

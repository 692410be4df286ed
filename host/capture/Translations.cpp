#include "capture/Translations.h"

#include <string_view>

namespace brvhost {

namespace {

struct Translation {
  std::string_view key;
  const char* text;
};

constexpr Translation English[] = {
    {"p_source_systemdevice", "System Devices"},
    {"av_source_no_video_settings", "No video settings"},
    {"av_source_no_audio_settings", "No audio settings"},
    {"av_source_no_fps_settings", "No frame rate settings"},
    {"av_source_no_video_format_name", "Unnamed video format"},
    {"av_source_no_audio_format_name", "Unnamed audio format"},
};

}  // namespace

const char* translated(const char* key) noexcept {
  if (key == nullptr) return "";
  for (const Translation& translation : English) {
    if (translation.key == key) return translation.text;
  }
  return key;
}

}  // namespace brvhost

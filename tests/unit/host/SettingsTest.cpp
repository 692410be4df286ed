#include "capture/Settings.h"

#include <gtest/gtest.h>

#include "common/Failure.h"

namespace brvhost {
namespace {

TEST(SettingsTest, RefusesUnknownNamesAndMalformedIndexes) {
  EXPECT_EQ(parseSetting("AUDIO=2147483647"), (brv::Setting{brv::AudioSettings, 2'147'483'647}));
  for (const char* text : {"", "=1", "video", "vide=1", "videos=1", "video==1", "fps=", "fps=-1", "fps=+1", "fps=1.0",
                           "fps= 1", "fps=1 ", "fps=0x1", "fps=2147483648"}) {
    EXPECT_THROW(parseSetting(text), UsageError) << text;
  }
}

TEST(SettingsTest, FindsTheSettingThatDoesNotHold) {
  const std::vector<Parameter> now = {
      {brv::VideoSettings, {{0, "720 x 576"}, {1, "720 x 576"}, {2, "1280 x 720"}, {3, ""}}, 0},
      {brv::VideoFPS, {{0, "25.00"}, {1, "50.00"}}, 1},
      {brv::AudioSettings, {{0, "Stereo"}, {1, "Mono"}}, std::nullopt},
  };
  const struct {
    const char* what;
    std::vector<brv::Setting> settings;
    std::optional<std::string> unmet;
  } cases[] = {
      {"all hold", {{brv::VideoSettings, 0}, {brv::VideoFPS, 1}}, {}},
      {"another format of the same name is taken for it", {{brv::VideoSettings, 1}}, {}},
      {"a format without a title", {{brv::VideoSettings, 3}}, "Video Settings is 0 (720 x 576), not 3"},
      {"no choice at all", {{brv::VideoSettings, 4}}, "Video Settings is 0 (720 x 576), not 4"},
      {"a later one replaced it", {{brv::VideoFPS, 0}, {brv::VideoFPS, 1}}, {}},
      {"it went with the format it was for", {{brv::VideoFPS, 0}, {brv::VideoSettings, 0}}, {}},
      {"a rate after the format", {{brv::VideoSettings, 0}, {brv::VideoFPS, 0}}, "Video FPS is 1 (50.00), not 0"},
      {"a format before a rate",
       {{brv::VideoSettings, 2}, {brv::VideoFPS, 1}},
       "Video Settings is 0 (720 x 576), not 2"},
      {"the selection is not known", {{brv::AudioSettings, 1}}, {}},
  };
  for (const auto& [what, settings, unmet] : cases) EXPECT_EQ(unmetSetting(settings, now), unmet) << what;
}

}  // namespace
}  // namespace brvhost

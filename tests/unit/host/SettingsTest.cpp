#include "Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Failure.h"

namespace brvhost {
namespace {

using testing::ElementsAre;

constexpr const char* Declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

TEST(SettingsTest, UnderstandsNamesInAnyCaseAndTheirShortForms) {
  const std::pair<const char*, Setting> cases[] = {
      {"Video Settings=0", {VideoSettings, 0}},
      {"video settings=1", {VideoSettings, 1}},
      {"video=2", {VideoSettings, 2}},
      {"VIDEO FPS=3", {VideoFPS, 3}},
      {"Fps=04", {VideoFPS, 4}},
      {"audio settings=65535", {AudioSettings, 65'535}},
      {"AUDIO=2147483647", {AudioSettings, 2'147'483'647}},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(parseSetting(text), expected) << text;
}

TEST(SettingsTest, RefusesUnknownNamesAndMalformedIndexes) {
  for (const char* text :
       {"", "=", "=1", "video", "vide=1", "videos=1", "Video Settings =1", "video==1", "fps=", "fps=-1", "fps=+1",
        "fps=1.0", "fps= 1", "fps=1 ", "fps=1x", "fps=0x1", "fps=2147483648", "fps=99999999999999999999"}) {
    EXPECT_THROW(parseSetting(text), UsageError) << text;
  }
}

TEST(SettingsTest, WritesARecordInTheOrderThatWasAskedFor) {
  EXPECT_EQ(settingsRecord({{VideoFPS, 1}, {AudioSettings, 0}, {VideoFPS, 2}}),
            std::string(Declaration) +
                "<record name=\"settings\">"
                "<record name=\"parameter\"><text name=\"name\" value=\"Video FPS\"/>"
                "<int32 name=\"value\" value=\"1\"/></record>"
                "<record name=\"parameter\"><text name=\"name\" value=\"Audio Settings\"/>"
                "<int32 name=\"value\" value=\"0\"/></record>"
                "<record name=\"parameter\"><text name=\"name\" value=\"Video FPS\"/>"
                "<int32 name=\"value\" value=\"2\"/></record>"
                "</record>");
}

TEST(SettingsTest, ReadsOptionsByTheirOwnIndexesAndWithWhatTitlesThereAre) {
  const Parameter parameter{VideoFPS, optionsInRecord(R"(<record name="parameter">
                              <text name="name" value="Video FPS"/>
                              <record name="option"><uint16 name="value" value="0"/>
                                <record name="title"><text name="lang" value="de"/>
                                                     <text name="value" value="25 &lt;PAL&gt;"/></record></record>
                              <record name="note"><uint16 name="value" value="1"/></record>
                              <record name="option"><uint16 name="value" value="2"/></record>
                              <record name="option"><uint16 name="value" value="65535"/>
                                <record name="title"><text name="value" value="50"/></record></record>
                            </record>)"),
                            2};

  EXPECT_THAT(parameter.options,
              ElementsAre(ParameterOption{0, "25 <PAL>"}, ParameterOption{2, ""}, ParameterOption{65'535, "50"}));
  EXPECT_EQ(optionsTable(parameter),
            "      0  25 <PAL>\n"
            "    * 2  (no title)\n"
            "      65535  50\n");
}

TEST(SettingsTest, ReadsSelectionsBackAndLeavesUnknownOnesOut) {
  EXPECT_THAT(settingsInRecord(settingsRecord({{AudioSettings, 3}, {VideoSettings, 0}})),
              ElementsAre(Setting{AudioSettings, 3}, Setting{VideoSettings, 0}));
  EXPECT_THAT(settingsInRecord("<record name=\"settings\"/>"), ElementsAre());
}

TEST(SettingsTest, RefusesRecordsThatSayNothingUseful) {
  for (const char* text :
       {"", "no record", "<record name=\"parameter\">", "<record name=\"source\"/>",
        "<record name=\"parameter\"><record name=\"option\"/></record>",
        "<record name=\"parameter\"><record name=\"option\"><int32 name=\"value\" value=\"-1\"/></record></record>"}) {
    EXPECT_THROW(optionsInRecord(text), Failure) << text;
  }
  EXPECT_THROW(settingsInRecord("<record name=\"parameter\"/>"), Failure);
  EXPECT_THROW(settingsInRecord("<record name=\"settings\"><record name=\"parameter\"/></record>"), Failure);
}

TEST(SettingsTest, FindsTheSettingThatDoesNotHold) {
  const std::vector<Parameter> now = {
      {VideoSettings, {{0, "720 x 576"}, {1, "720 x 576"}, {2, "1280 x 720"}, {3, ""}}, 0},
      {VideoFPS, {{0, "25.00"}, {1, "50.00"}}, 1},
      {AudioSettings, {{0, "Stereo"}, {1, "Mono"}}, std::nullopt},
  };
  struct Case {
    const char* what;
    std::vector<Setting> settings;
    std::optional<std::string> unmet;
  };
  const Case cases[] = {
      {"nothing was set", {}, {}},
      {"all hold", {{VideoSettings, 0}, {VideoFPS, 1}}, {}},
      {"another format of the same name is taken for it", {{VideoSettings, 1}}, {}},
      {"another format", {{VideoSettings, 2}, {VideoFPS, 1}}, "Video Settings is 0 (720 x 576), not 2"},
      {"a format without a title", {{VideoSettings, 3}}, "Video Settings is 0 (720 x 576), not 3"},
      {"no choice at all", {{VideoSettings, 4}}, "Video Settings is 0 (720 x 576), not 4"},
      {"a later one replaced it", {{VideoFPS, 0}, {VideoFPS, 1}}, {}},
      {"it went with the format it was for", {{VideoFPS, 0}, {VideoSettings, 0}}, {}},
      {"it came after the format", {{VideoSettings, 0}, {VideoFPS, 0}}, "Video FPS is 1 (50.00), not 0"},
      {"a format is not over with a frame rate",
       {{VideoSettings, 2}, {VideoFPS, 1}, {VideoFPS, 1}},
       "Video Settings is 0 (720 x 576), not 2"},
      {"the selection is not known", {{AudioSettings, 1}}, {}},
  };
  for (const Case& c : cases) EXPECT_EQ(unmetSetting(c.settings, now), c.unmet) << c.what;
}

}  // namespace
}  // namespace brvhost

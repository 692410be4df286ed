#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Failure.h"
#include "SourceMatch.h"

namespace brvhost {
namespace {

using Arguments = std::vector<std::string>;

TEST(OptionsTest, ReadsARecordingWithEverythingInAnyOrder) {
  const Options options = parseOptions({"--quiet", "record", "--seconds", "2.5", "Camera Video", "--output=take",
                                        "--rig", "studio.rig", "--module=/m.so", "--until-idle", "--language", "de"},
                                       "fr_FR.UTF-8");

  EXPECT_EQ(options.command, Command::record);
  EXPECT_EQ(options.source, "Camera Video");
  EXPECT_EQ(options.output, "take");
  EXPECT_EQ(options.seconds, 2.5);
  EXPECT_TRUE(options.untilIdle);
  EXPECT_TRUE(options.quiet);
  EXPECT_EQ(options.rig, "studio.rig");
  EXPECT_EQ(options.module, "/m.so");
  EXPECT_EQ(options.language, "de");
}

TEST(OptionsTest, KeepsTheOrderOfSettingsHoweverTheyAreGiven) {
  const std::vector<Setting> expected = {{VideoFPS, 1}, {VideoSettings, 2}, {VideoFPS, 0}};
  const Arguments cases[] = {
      {"set", "0", "Video FPS=1", "Video Settings=2", "Video FPS=0"},
      {"record", "--set", "fps=1", "0", "--set=video=2", "--output", "a", "--set", "fps=0"},
      {"snapshot", "--set", "fps=1", "--set", "video=2", "0", "a.png", "--set", "fps=0"},
  };
  for (const Arguments& arguments : cases) {
    const Options options = parseOptions(arguments, nullptr);
    EXPECT_EQ(options.settings, expected) << arguments.front();
    EXPECT_EQ(options.source, "0");
  }
}

TEST(OptionsTest, TakesWhatFollowsTwoDashesAsItIs) {
  const Options options = parseOptions({"snapshot", "--", "-odd- Video", "--file.png"}, nullptr);

  EXPECT_EQ(options.source, "-odd- Video");
  EXPECT_EQ(options.output, "--file.png");
}

TEST(OptionsTest, HelpAndVersionNeedNothingElse) {
  EXPECT_TRUE(parseOptions({"record", "--help"}, nullptr).help);
  EXPECT_EQ(parseOptions({"-h", "watch"}, nullptr).command, Command::watch);
  EXPECT_TRUE(parseOptions({"--version"}, nullptr).version);
}

TEST(OptionsTest, RefusesWhatItDoesNotUnderstand) {
  const std::pair<Arguments, const char*> cases[] = {
      {{}, "a command is needed"},
      {{"play"}, "no command \"play\""},
      {{"list", "extra"}, "\"extra\" is too much"},
      {{"list", "--fast"}, "no option --fast"},
      {{"list", "--seconds", "3"}, "--seconds does not go with list"},
      {{"snapshot", "0", "a.png", "--until-idle"}, "--until-idle does not go with snapshot"},
      {{"record", "--output", "x"}, "record needs a source"},
      {{"record", "0"}, "record needs --output"},
      {{"record", "0", "--output"}, "--output needs a value"},
      {{"record", "0", "--output="}, "--output needs a value"},
      {{"record", "0", "--output", "a", "--output", "b"}, "--output is given twice"},
      {{"record", "My", "Camera", "--output", "a"}, "\"Camera\" is too much"},
      {{"record", "0", "--output", "a", "--until-idle=yes"}, "--until-idle takes no value"},
      {{"snapshot", "0"}, "snapshot needs a file"},
      {{"show"}, "show needs a source"},
      {{"show", "0", "1"}, "\"1\" is too much"},
      {{"show", "0", "--set", "fps=1"}, "--set does not go with show"},
      {{"set", "0"}, "set needs a setting"},
      {{"set", "0", "fps=1", "fps"}, "not \"fps\""},
      {{"record", "0", "--output", "a", "--set", "zoom=1"}, "no setting \"zoom\""},
      {{"watch", "--seconds", "0"}, "not \"0\""},
      {{"watch", "--seconds", "-1"}, "not \"-1\""},
      {{"watch", "--seconds", "3s"}, "not \"3s\""},
      {{"watch", "--seconds", "nan"}, "not \"nan\""},
      {{"watch", "--seconds", "inf"}, "not \"inf\""},
  };
  for (const auto& [arguments, message] : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    try {
      parseOptions(arguments, nullptr);
      ADD_FAILURE() << "accepted";
    } catch (const UsageError& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr(message));
      EXPECT_EQ(error.exitCode(), ExitWrongUse);
    }
  }
}

TEST(OptionsTest, FindsTheLanguageInALocale) {
  const std::pair<const char*, const char*> cases[] = {{"de_AT.UTF-8", "de"}, {"fr", "fr"},    {"sr@latin", "sr"},
                                                       {"C.UTF-8", "en"},     {"POSIX", "en"}, {"", "en"},
                                                       {nullptr, "en"}};
  for (const auto& [locale, language] : cases) EXPECT_EQ(languageOfLocale(locale), language);
}

TEST(SourceMatchTest, UnderstandsIdentifiersIndexesAndBeginnings) {
  const std::vector<std::string> names = {"Cam Video", "Cam 1 Video", "1", "cam 1 video", "Mic Audio", "Mic"};
  const std::pair<const char*, std::vector<std::size_t>> cases[] = {
      {"Cam 1 Video", {1}},  // itself, before the one that differs in case
      {"1", {2}},            // an identifier before an index
      {"4", {4}},            // an index
      {"6", {}},             // past the last
      {"99999999999999999999", {}},
      {"CAM VIDEO", {0}},       // but for the case
      {"CAM 1 VIDEO", {1, 3}},  // which leaves two
      {"mic", {5}},             // whole before beginning
      {"mic a", {4}},           // a beginning
      {"ca", {0, 1, 3}},        // of several
      {"Mic Audio 2", {}},      // longer than any
      {"", {}},
      {"-1", {}},
  };
  for (const auto& [wanted, expected] : cases) EXPECT_EQ(matchSource(names, wanted), expected) << wanted;
}

}  // namespace
}  // namespace brvhost

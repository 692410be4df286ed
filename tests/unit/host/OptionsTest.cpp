#include "commands/Options.h"

#include <gmock/gmock.h>

#include "capture/Sources.h"
#include "common/Failure.h"

namespace brvhost {
namespace {

using Arguments = std::vector<std::string>;

TEST(OptionsTest, ReadsOptionsAndSettingsInWhateverOrderTheyAreGiven) {
  const std::vector<brv::Setting> expected = {{brv::VideoFPS, 1}, {brv::VideoSettings, 2}, {brv::VideoFPS, 0}};
  for (const Arguments& arguments :
       {Arguments{"set", "--", "-odd-", "Video FPS=1", "Video Settings=2", "Video FPS=0"},
        {"--quiet", "record", "--set", "fps=1", "--seconds", "2.5", "--set=video=2", "--output=--a", "--set", "FPS=00",
         "--until-idle", "--", "-odd-"},
        {"snapshot", "--set", "fps=1", "--set", "video=2", "--set", "fps=0", "--", "-odd-", "--a"}}) {
    const Options options = parseOptions(arguments, nullptr);
    EXPECT_EQ(options.settings, expected);
    EXPECT_EQ(options.source, "-odd-");
    EXPECT_EQ(options.output, options.command == Command::set ? "" : "--a");
    EXPECT_EQ(options.seconds.has_value(), options.command == Command::record);
  }
}

TEST(OptionsTest, RefusesWhatItDoesNotUnderstand) {
  const std::pair<Arguments, const char*> cases[] = {
      {{}, "a command is needed"},
      {{"list", "--seconds", "3"}, "--seconds does not go with list"},
      {{"record", "--output", "x"}, "record needs a source"},
      {{"record", "0", "--output"}, "--output needs a value"},
      {{"record", "0", "--output="}, "--output needs a value"},
      {{"record", "0", "--output", "a", "--output", "b"}, "--output is given twice"},
      {{"record", "My", "Camera", "--output", "a"}, "\"Camera\" is too much"},
      {{"record", "0", "--output", "a", "--until-idle=yes"}, "--until-idle takes no value"},
      {{"set", "0", "fps=1", "fps"}, "not \"fps\""},
      {{"--rig", "a", "list", "--rig", "b"}, "--rig is given twice"},
      {{"watch", "--seconds", "0"}, "not \"0\""},
      {{"watch", "--seconds", "1e9"}, "up to 366 days, not \"1e9\""},
      {{"watch", "--seconds", "3s"}, "not \"3s\""},
      {{"watch", "--seconds", "nan"}, "not \"nan\""},
  };
  for (const auto& each : cases) {
    EXPECT_THAT([&] { parseOptions(each.first, nullptr); },
                testing::ThrowsMessage<UsageError>(testing::HasSubstr(each.second)));
  }
}

TEST(SourceMatchTest, UnderstandsIdentifiersIndexesAndBeginnings) {
  const std::vector<std::string> names = {"Cam Video", "Cam 1 Video", "1", "cam 1 video", "Mic Audio", "Mic"};
  const std::pair<const char*, std::vector<std::size_t>> cases[] = {
      {"Cam 1 Video", {1}},     // itself, before the one that differs in case
      {"CAM 1 VIDEO", {1, 3}},  // which leaves two
      {"1", {2}},               // an identifier before an index
      {"4", {4}},
      {"6", {}},
      {"99999999999999999999", {}},
      {"mic", {5}},  // whole before beginning
      {"ca", {0, 1, 3}},
      {"", {}},
  };
  for (const auto& [wanted, expected] : cases) EXPECT_EQ(matchSource(names, wanted), expected) << wanted;
}

}  // namespace
}  // namespace brvhost

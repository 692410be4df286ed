#include "commands/Options.h"

#include <gtest/gtest.h>

#include "common/Choice.h"
#include "common/Failure.h"

namespace brvhost {
namespace {

using Arguments = std::vector<std::string>;

const std::vector<brv::Option> Formats = {{0, "1640 x 480"}, {1, "Wide, 640 x 480"}, {2, "640 x 480"}};
const std::vector<brv::Option> Rates = {{0, "30.00"}, {1, "29.97"}, {2, "15.00"}, {3, ""}};

TEST(OptionsTest, SetsTheFormatThenTheRateThenTheSoundInWhateverOrderAndWayTheyAreGiven) {
  for (const Arguments& arguments :
       {Arguments{"set", "--", "-odd-", "audio=1", "fps=29.97", "video=wide"},
        {"set", "--rate", "29.9", "--set", "AUDIO=1", "--size", "640x480", "--", "-odd-"},
        {"--quiet", "record", "--set=FPS=1", "--set", "Video Settings=1", "--set", "audio=1", "--", "-odd-", "a.mkv"},
        {"snapshot", "--rate=29.97", "--size", "640 x 480", "--set", "Audio Set=1", "--", "-odd-", "a.JPG"}}) {
    const Options options = parseOptions(arguments, nullptr);
    EXPECT_EQ(options.source, "-odd-");
    ASSERT_EQ(options.settings.size(), 3U);
    EXPECT_EQ(options.settings[0].indexAmong(Formats), 1);
    EXPECT_EQ(options.settings[1].indexAmong(Rates), 1);
    EXPECT_EQ(options.settings[2].parameter, brv::AudioSettings);
  }
}

TEST(ChoiceTest, UnderstandsNamesAliasesPositionsAndParts) {
  const std::vector<Choice> choices = {{"Cam Video", {"usb-1"}},
                                       {"Cam 1 Video", {"usb-2", "mic"}},
                                       {"1"},
                                       {"can 1", {"mic"}},
                                       {"Mic Audio", {"7"}},
                                       {"Mic"},
                                       {"Twin"},
                                       {"Twin"}};
  const std::pair<const char*, std::size_t> cases[] = {
      {"Cam 1 Video", 1},              // itself, before the one that differs in case
      {"1", 2},                        // a name before a position
      {"4", 4},           {"7", 4},    // an alias before a position
      {"usb-2", 1},       {"MIC", 5},  // whole before part
      {"AUDIO", 4},       {"Twin", 6},
  };
  for (const auto& [wanted, expected] : cases) EXPECT_EQ(choose("camera", choices, wanted), expected) << wanted;
  for (const char* wanted : {"CA", "mic", "vid", "", "9", "99999999999999999999", "usb", "USB-1"}) {
    EXPECT_THROW(choose("camera", choices, wanted), UsageError) << wanted;
  }
}

}  // namespace
}  // namespace brvhost

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <sstream>
#include <thread>

#include "Commands.h"
#include "Failure.h"
#include "PNGWriter.h"
#include "TemporaryDirectory.h"
#include "WAVWriter.h"

namespace brvhost {
namespace {

using testing::HasSubstr;

/// Every byte of a picture from the third start of a source: the final one for picture with sound.
constexpr char ThirdRun = static_cast<char>(150);
constexpr const char* ClipHeader = "YUV4MPEG2 W18 H2 F30000:1001 Ip A10:11 C422\n";

std::string soundHeader(std::size_t dataBytes) {
  const auto header = wavHeader({}, dataBytes);
  return {header.begin(), header.end()};
}

/// Runs brvhost's commands against a module of made-up sources.
class HostTest : public testing::Test {
 protected:
  ~HostTest() override { std::fclose(_log); }

  /// What the host prints, and behind it, if it fails, the reason.
  std::string host(std::vector<std::string> arguments, int expected = ExitDone, const char* module = FAKE_MODULE) {
    arguments.insert(arguments.begin(), {"--module", module});
    Console console(_log, false);
    std::ostringstream out;
    try {
      EXPECT_EQ(run(parseOptions(arguments, nullptr), out, console), expected);
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.exitCode(), expected);
      out << failure.what();
    }
    return out.str();
  }

  TemporaryDirectory _directory;
  std::string _take = _directory.file("take");
  std::FILE* _log = std::fopen(_directory.file("log").c_str(), "w");
};

TEST_F(HostTest, ListsSourcesInTheHostsLanguageAndKeepsTheLogToItselfWhenAskedTo) {
  const std::string expected =
      "System Devices: 3 sources\n0  Camera Video  (video+audio)\n1  Mic Audio  (audio)\n2  Loose Video  (video)\n";
  EXPECT_EQ(host({"list", "--quiet"}), expected);
  EXPECT_EQ(_directory.contents("log"), "");
  EXPECT_EQ(host({"list"}), expected);
  EXPECT_EQ(_directory.contents("log"), "Fake.cpp:1    found 3 sources\n");
}

TEST_F(HostTest, RecordsExactlyWhatWasAskedForFromTheFirstFrameOfTheFinalStart) {
  const std::string output = host({"record", "camera", "--seconds", "1", "--output", _take});

  // 30 frame times fit into a second; the camera lost two. All are of the third start, none from before.
  std::string expected = ClipHeader;
  for (int frame = 0; frame < 28; ++frame) expected += "FRAME\n" + std::string(36 + 18 + 18, ThirdRun);
  EXPECT_EQ(_directory.contents("take.y4m"), expected);

  expected = soundHeader(44'100 * 4);
  for (int run = 0; run < 100; ++run) expected += std::string(441 * 4, static_cast<char>(run));
  EXPECT_TRUE(_directory.contents("take.wav") == expected) << "sound is missing or doubled";

  EXPECT_EQ(output, _take +
                        ".y4m\n"
                        "  picture     18 x 2, 30000/1001 frames a second, pixels 10:11\n"
                        "  frames      captured 30, delivered 28, dropped 2, not written 0\n"
                        "  time stamps first 0 (0.000 s), last 29029 (0.968 s), 30000 ticks a second\n" +
                        _take +
                        ".wav\n"
                        "  sound       1.000 s (44100 frames), not written 0\n"
                        "  time stamps first 0 (0.000 s), last 47520 (0.990 s), 48000 ticks a second\n");
}

TEST_F(HostTest, FinishesTheFilesOfASourceThatIsUnpluggedOrHasOneMediumOnly) {
  EXPECT_THAT(host({"record", "loose", "--output", _take}, ExitFailed),
              testing::AllOf(HasSubstr("captured 10, delivered 8, dropped 2, not written 0"),
                             testing::EndsWith("Loose Video was unplugged")));
  EXPECT_EQ(_directory.contents("take.y4m").size(), std::strlen(ClipHeader) + 8 * (6 + 72));

  host({"record", "mic", "--seconds", "0.5", "--output", _directory.file("mic")});
  EXPECT_FALSE(_directory.contains("mic.y4m"));
  EXPECT_EQ(_directory.contents("mic.wav").size(), WAVHeaderBytes + 22'050 * 4);
}

TEST_F(HostTest, SavesASnapshotFromTheFinalStartWithSquarePixels) {
  EXPECT_EQ(host({"snapshot", "0", _take}), _take + ": 16 x 2\n");

  const std::vector<std::uint8_t> pixels(36 * 2, static_cast<std::uint8_t>(ThirdRun));
  const RGBImage image = convertToRGB({pixels.data(), 36, 18, 2}, ColorMatrix::bt601);
  const std::vector<std::uint8_t> expected = encodePNG(withSquarePixels(image, {10, 11}));
  EXPECT_EQ(_directory.contents("take"), std::string(expected.begin(), expected.end()));
}

TEST_F(HostTest, ShowsTheChoicesThatHoldOnceTheSourceWasStarted) {
  EXPECT_EQ(host({"show", "camera"}),
            "Camera Video  (video+audio)\n"
            "  Video Settings\n    * 0  Wide\n      1  Narrow\n"
            "  Video FPS\n    * 0  29.97\n      1  14.99\n"
            "  Audio Settings\n      0  Loud\n      1  Soft\n"
            "  frame size      18 x 2\n"
            "  frame rate      29.97 frames a second\n"
            "  frame duration  1001 ticks\n"
            "  timescale       30000 ticks a second\n");
  EXPECT_THAT(host({"show", "mic"}), HasSubstr("  Video FPS\n    * 0  No video settings\n"));
}

TEST_F(HostTest, SetsInOrderAndTellsARefusedSettingAndOneThatTheModulesAnswerHides) {
  EXPECT_EQ(host({"set", "camera", "video=1", "FPS=1", "audio=1"}),
            "Camera Video: Video Settings=1, Video FPS=1, Audio Settings=1\n"
            "  answer          1 (done)\n"
            "  Video Settings  1  Narrow\n"
            "  Video FPS       1  14.99\n"
            "  Audio Settings  1  Soft\n");
  EXPECT_THAT(host({"set", "camera", "fps=1", "video=1"}),
              HasSubstr("  Video FPS       0  29.97\n  Audio Settings  not known\n"));
  EXPECT_THAT(host({"set", "camera", "video=9"}, ExitFailed),
              HasSubstr("  answer          -7 (failed)\n"
                        "  message         There is no such format.\n"
                        "  not taken       Video Settings is 0 (Wide), not 9\n"));
  EXPECT_THAT(host({"set", "camera", "video=9", "audio=0"}, ExitFailed),
              HasSubstr("1 (done)\n  not taken       Video Settings is 0 (Wide), not 9\n"));
}

TEST_F(HostTest, RecordsWithTheSettingsOverAllStartsAndNothingWhereOneDoesNotHold) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"video=1", "fps=1", "YUV4MPEG2 W8 H2 F15000:1001 Ip"},
      {"fps=1", "video=1", "YUV4MPEG2 W8 H2 F30000:1001 Ip"},
      {"fps=1", "audio=0", "YUV4MPEG2 W18 H2 F15000:1001 Ip"},
  };
  for (const auto& [first, second, header] : cases) {
    host({"record", "camera", "--seconds", "1", "--output", _take, "--set", first, "--set", second});
    EXPECT_THAT(_directory.contents("take.y4m"), testing::StartsWith(header));
  }

  const std::string none = _directory.file("none");
  EXPECT_EQ(host({"record", "camera", "--output", none, "--set", "video=9"}, ExitFailed),
            "Camera Video refused a setting (code -7): There is no such format.; Video Settings is 0 (Wide), not 9");
  EXPECT_EQ(host({"snapshot", "camera", none + ".wav", "--set", "video=9", "--set", "fps=0"}, ExitFailed),
            "Camera Video did not take a setting; Video Settings is 0 (Wide), not 9");
  for (const char* file : {"none.y4m", "none.wav"}) EXPECT_FALSE(_directory.contains(file)) << file;
}

TEST_F(HostTest, SaysWhatIsWrongWithACommandOrAModule) {
  EXPECT_THAT(host({"record", "cellar", "--output", _take}, ExitWrongUse),
              HasSubstr("\"cellar\" is no source; there are:\n  0  Camera Video\n  1  Mic Audio"));
  EXPECT_THAT(host({"snapshot", "mic", _take}, ExitFailed), HasSubstr("Mic Audio has no picture"));
  EXPECT_THAT(host({"record", "camera", "--output", "/nowhere/take"}, ExitFailed),
              HasSubstr("cannot create /nowhere/take.y4m: No such file or directory"));
  EXPECT_THAT(host({"list"}, ExitFailed, "/nowhere/module.so"), HasSubstr("/nowhere/module.so"));
  EXPECT_THAT(host({"list"}, ExitFailed, OTHER_LIBRARY), HasSubstr("it lacks BRV_IntitializeLibrary, BRV_"));
}

TEST_F(HostTest, AnInterruptEndsARecordingWithWholeFiles) {
  std::thread interrupter([&] {
    // Something in both files means that the recording runs, wants for nothing, and that the signal is caught.
    for (const char* file : {"take.y4m", "take.wav"}) {
      std::error_code error;
      while (std::filesystem::file_size(_directory.file(file), error) == 0 || error) std::this_thread::yield();
    }
    std::raise(SIGTERM);
  });

  host({"record", "camera", "--output", _take});
  interrupter.join();

  const std::string clip = _directory.contents("take.y4m");
  EXPECT_EQ((clip.size() - std::strlen(ClipHeader)) % (6 + 72), 0U);
  const std::string sound = _directory.contents("take.wav");
  EXPECT_EQ(sound.substr(0, WAVHeaderBytes), soundHeader(sound.size() - WAVHeaderBytes));
}

}  // namespace
}  // namespace brvhost

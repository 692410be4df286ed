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

/// Runs brvhost's commands against a module of made-up sources.
class HostTest : public testing::Test {
 protected:
  ~HostTest() override { std::fclose(_log); }

  int runHost(std::vector<std::string> arguments, const std::string& module = FAKE_MODULE) {
    arguments.insert(arguments.begin(), {"--module", module});
    Console console(_log, false);
    _out.str({});
    return run(parseOptions(arguments, nullptr), _out, console);
  }

  std::string failureOf(const std::vector<std::string>& arguments, ExitCode expected,
                        const std::string& module = FAKE_MODULE) {
    try {
      runHost(arguments, module);
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.exitCode(), expected);
      return failure.what();
    }
    ADD_FAILURE() << "this did not fail";
    return {};
  }

  std::string output() const { return _out.str(); }
  std::string log() const { return _directory.contents("log"); }

  TemporaryDirectory _directory;
  std::ostringstream _out;
  std::FILE* _log = std::fopen(_directory.file("log").c_str(), "w");
};

TEST_F(HostTest, ListsSourcesWithTheirKindsInTheHostsLanguage) {
  EXPECT_EQ(runHost({"list"}), ExitDone);

  EXPECT_EQ(output(),
            "System Devices: 4 sources\n"
            "0  Camera Video  (video+audio)\n"
            "     device   mic-1\n"
            "1  Mic Audio  (audio)\n"
            "     device   mic-2\n"
            "2  Still Video  (video)\n"
            "     device   still-1\n"
            "3  Loose Video  (video)\n"
            "     device   loose-1\n");
  EXPECT_EQ(log(), "Fake.cpp:1    found 4 sources\n");
}

TEST_F(HostTest, KeepsTheLogToItselfWhenAskedTo) {
  runHost({"list", "--quiet"});
  EXPECT_EQ(log(), "");
}

TEST_F(HostTest, RecordsExactlyWhatWasAskedForFromTheFirstFrameOfTheFinalStart) {
  EXPECT_EQ(runHost({"record", "camera", "--seconds", "1", "--output", _directory.file("take")}), ExitDone);

  // 30 frame times fit into a second; the camera lost two. All are of the third start, none from before.
  std::string expected = ClipHeader;
  for (int frame = 0; frame < 28; ++frame) expected += "FRAME\n" + std::string(36 + 18 + 18, ThirdRun);
  EXPECT_EQ(_directory.contents("take.y4m"), expected);

  const std::string sound = _directory.contents("take.wav");
  ASSERT_EQ(sound.size(), WAVHeaderBytes + 44'100 * 4);
  const auto header = wavHeader({}, 44'100 * 4);
  EXPECT_TRUE(std::equal(header.begin(), header.end(), sound.begin(),
                         [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }));
  for (std::size_t run = 0; run < 100; ++run) {
    ASSERT_EQ(sound[WAVHeaderBytes + run * 441 * 4], static_cast<char>(run)) << "sound is missing or doubled";
  }

  EXPECT_EQ(output(), _directory.file("take.y4m") +
                          "\n"
                          "  picture     18 x 2, 30000/1001 frames a second, pixels 10:11\n"
                          "  frames      captured 30, delivered 28, dropped 2, not written 0\n"
                          "  time stamps first 0 (0.000 s), last 29029 (0.968 s), 30000 ticks a second\n" +
                          _directory.file("take.wav") +
                          "\n"
                          "  sound       1.000 s (44100 frames), not written 0\n"
                          "  time stamps first 0 (0.000 s), last 47520 (0.990 s), 48000 ticks a second\n");
}

TEST_F(HostTest, RecordsOnlyTheMediaThatASourceHas) {
  runHost({"record", "mic", "--seconds", "0.5", "--output", _directory.file("take")});

  EXPECT_FALSE(_directory.contains("take.y4m"));
  EXPECT_EQ(_directory.contents("take.wav").size(), WAVHeaderBytes + 22'050 * 4);
}

TEST_F(HostTest, FinishesTheFilesWhenTheSourceIsUnplugged) {
  EXPECT_EQ(failureOf({"record", "loose", "--output", _directory.file("take")}, ExitFailed),
            "Loose Video was unplugged");
  EXPECT_THAT(output(), HasSubstr("captured 10, delivered 8, dropped 2, not written 0"));
  EXPECT_EQ(_directory.contents("take.y4m").size(), std::strlen(ClipHeader) + 8 * (6 + 72));
}

TEST_F(HostTest, SavesASnapshotFromTheFinalStartWithSquarePixels) {
  runHost({"snapshot", "0", _directory.file("picture.png")});

  EXPECT_EQ(output(), _directory.file("picture.png") + ": 16 x 2\n");
  const std::vector<std::uint8_t> pixels(36 * 2, static_cast<std::uint8_t>(ThirdRun));
  const RGBImage image = convertToRGB({pixels.data(), 36, 18, 2}, ColorMatrix::bt601);
  const std::vector<std::uint8_t> expected = encodePNG(withSquarePixels(image, {10, 11}));
  EXPECT_EQ(_directory.contents("picture.png"), std::string(expected.begin(), expected.end()));
}

TEST_F(HostTest, ShowsTheChoicesThatHoldOnceTheSourceWasStarted) {
  runHost({"show", "camera"});
  EXPECT_EQ(output(),
            "Camera Video  (video+audio)\n"
            "  Video Settings\n"
            "    * 0  Wide\n"
            "      1  Narrow\n"
            "  Video FPS\n"
            "    * 0  29.97\n"
            "      1  14.99\n"
            "  Audio Settings\n"
            "      0  Loud\n"
            "      1  (no title)\n"
            "  frame size      18 x 2\n"
            "  frame rate      29.97 frames a second\n"
            "  frame duration  1001 ticks\n"
            "  timescale       30000 ticks a second\n");

  runHost({"show", "mic"});
  EXPECT_THAT(output(), HasSubstr("  Video FPS\n    * 0  No video settings\n"));
  EXPECT_THAT(output(), testing::EndsWith("      1  (no title)\n  timescale       48000 ticks a second\n"));

  runHost({"show", "still"});
  EXPECT_THAT(output(), testing::EndsWith("  Audio Settings\n    * 0  No audio settings\n"));
}

TEST_F(HostTest, SetsWhatItWasToldInThatOrderAndShowsWhatIsSelectedThen) {
  EXPECT_EQ(runHost({"set", "camera", "video=1", "FPS=1", "audio=1"}), ExitDone);
  EXPECT_EQ(output(),
            "Camera Video: Video Settings=1, Video FPS=1, Audio Settings=1\n"
            "  answer          1 (done)\n"
            "  Video Settings  1  Narrow\n"
            "  Video FPS       1  60.00\n"
            "  Audio Settings  1  (no title)\n");

  EXPECT_EQ(runHost({"set", "camera", "fps=1", "video=1"}), ExitDone);
  EXPECT_THAT(output(), HasSubstr("  Video FPS       0  30.00\n  Audio Settings  not known\n"));
}

TEST_F(HostTest, TellsARefusedSettingAndOneThatTheModulesAnswerHides) {
  EXPECT_EQ(runHost({"set", "camera", "video=9"}), ExitFailed);
  EXPECT_THAT(output(), HasSubstr("  answer          -7 (failed)\n"
                                  "  message         There is no such format.\n"
                                  "  not taken       Video Settings is 0 (Wide), not 9\n"));

  EXPECT_EQ(runHost({"set", "camera", "audio=9"}), ExitFailed);
  EXPECT_THAT(output(), HasSubstr("  message         the module has none\n  Video Settings  0  Wide\n"));

  EXPECT_EQ(runHost({"set", "camera", "video=9", "audio=0"}), ExitFailed);
  EXPECT_THAT(output(), HasSubstr("  answer          1 (done)\n"
                                  "  not taken       Video Settings is 0 (Wide), not 9\n"));
}

TEST_F(HostTest, RecordsWithTheSettingsAndKeepsAFrameRateOverTheStarts) {
  struct Case {
    std::vector<std::string> settings;
    const char* header;
  };
  const Case cases[] = {
      {{"--set", "video=1", "--set", "fps=1"}, "YUV4MPEG2 W8 H2 F60:1 Ip"},
      {{"--set", "fps=1", "--set", "video=1"}, "YUV4MPEG2 W8 H2 F30:1 Ip"},
      {{"--set", "fps=1", "--set", "audio=0"}, "YUV4MPEG2 W18 H2 F15000:1001 Ip"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> arguments = {"record", "camera", "--seconds", "1", "--output", _directory.file("take")};
    arguments.insert(arguments.end(), c.settings.begin(), c.settings.end());
    EXPECT_EQ(runHost(arguments), ExitDone);
    EXPECT_THAT(_directory.contents("take.y4m"), testing::StartsWith(c.header));
  }
}

TEST_F(HostTest, RecordsAndSavesNothingWhenASettingDoesNotHold) {
  const std::string take = _directory.file("take");
  EXPECT_EQ(failureOf({"record", "camera", "--output", take, "--set", "video=9"}, ExitFailed),
            "Camera Video refused a setting (code -7): There is no such format.; Video Settings is 0 (Wide), not 9");
  EXPECT_EQ(failureOf({"record", "camera", "--output", take, "--set", "audio=9"}, ExitFailed),
            "Camera Video refused a setting (code -7): the module has no message for it");
  EXPECT_EQ(failureOf({"snapshot", "camera", take + ".png", "--set", "video=9", "--set", "fps=0"}, ExitFailed),
            "Camera Video did not take a setting; Video Settings is 0 (Wide), not 9");
  for (const char* file : {"take.y4m", "take.wav", "take.png"}) EXPECT_FALSE(_directory.contains(file)) << file;
}

TEST_F(HostTest, ProbesSourcesForTheirPictureAndSaysWhereNoneCame) {
  runHost({"list", "--probe"});

  EXPECT_THAT(output(), HasSubstr("mic-1\n     picture  18 x 2, 29.97 frames/s (1001 of 30000 ticks)\n"));
  EXPECT_THAT(output(), HasSubstr("still-1\n     picture  none came\n"));
}

TEST_F(HostTest, SaysWhatIsWrongWithACommand) {
  const std::string take = _directory.file("take");
  EXPECT_THAT(failureOf({"record", "cellar", "--output", take}, ExitWrongUse),
              HasSubstr("\"cellar\" is no source; there are:\n  0  Camera Video\n  1  Mic Audio"));
  EXPECT_THAT(failureOf({"snapshot", "mic", take}, ExitFailed), HasSubstr("Mic Audio has no picture"));
  EXPECT_THAT(failureOf({"record", "camera", "--output", "/nowhere/take"}, ExitFailed),
              HasSubstr("cannot create /nowhere/take.y4m: No such file or directory"));
  EXPECT_THAT(failureOf({"list", "--rig", "/nowhere/studio.rig"}, ExitFailed),
              HasSubstr("cannot read /nowhere/studio.rig"));
}

TEST_F(HostTest, SaysWhatIsWrongWithAModule) {
  EXPECT_THAT(failureOf({"list"}, ExitFailed, "/nowhere/module.so"), HasSubstr("/nowhere/module.so"));
  const std::string missing = failureOf({"list"}, ExitFailed, LACKING_MODULE);
  EXPECT_THAT(missing, HasSubstr("it lacks BRV_UninitializeLibrary, "));
  EXPECT_THAT(missing, HasSubstr("BRV_GetTimescaleTicksPerSec"));
  EXPECT_THAT(missing, testing::Not(HasSubstr("BRV_IntitializeLibrary")));
}

TEST_F(HostTest, AnInterruptEndsARecordingWithWholeFiles) {
  std::FILE* const quiet = std::fopen("/dev/null", "w");
  Console console(quiet, false);
  std::thread interrupter([&] {
    // Something in both files means that the recording runs, wants for nothing, and that the signal is caught.
    for (const char* file : {"take.y4m", "take.wav"}) {
      std::error_code error;
      while (std::filesystem::file_size(_directory.file(file), error) == 0 || error) std::this_thread::yield();
    }
    std::raise(SIGTERM);
  });

  run(parseOptions({"--module", FAKE_MODULE, "record", "camera", "--output", _directory.file("take")}, nullptr), _out,
      console);
  interrupter.join();
  std::fclose(quiet);

  const std::string clip = _directory.contents("take.y4m");
  const std::size_t header = clip.find('\n') + 1;
  EXPECT_EQ((clip.size() - header) % (6 + 72), 0U);
  const std::string sound = _directory.contents("take.wav");
  const auto expected = wavHeader({}, sound.size() - WAVHeaderBytes);
  EXPECT_EQ(sound.substr(0, WAVHeaderBytes), std::string(expected.begin(), expected.end()));
}

TEST(ConsoleTest, RedrawsTheProgressBelowALineOfLog) {
  const TemporaryDirectory directory;
  std::FILE* const stream = std::fopen(directory.file("log").c_str(), "w");
  Console console(stream, true);

  console.progress("00:01");
  console.line("Device.cpp:7    Dropped a Frame!\n");
  console.endProgress();
  console.line("done");
  std::fclose(stream);

  EXPECT_EQ(directory.contents("log"),
            "\r\033[K00:01"
            "\r\033[KDevice.cpp:7    Dropped a Frame!\n"
            "\r\033[K00:01\n"
            "done\n");
}

}  // namespace
}  // namespace brvhost

#include <gmock/gmock.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <png.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "commands/Commands.h"
#include "commands/Facts.h"
#include "common/Failure.h"
#include "picture/RGBImage.h"
#include "record/RecordReport.h"
#include "support/FrameworkTest.h"
#include "support/MediaFiles.h"
#include "support/MediaReader.h"
#include "support/Rigs.h"
#include "support/TemporaryFolder.h"
#include "support/Transcript.h"

namespace brvhost {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* ClipHeader = "YUV4MPEG2 W30 H2 F30000:1001 Ip A10:11 C422\n";
constexpr std::size_t Width = 30, ChromaWidth = 15;
constexpr std::size_t FrameBytes = 2 * (Width + 2 * ChromaWidth);

std::string noise(std::size_t size, unsigned seed) {
  std::minstd_rand random(seed + 1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

struct UnknownMachine : hardware::Provider {
  bool canListDevices() override { return false; }
  std::vector<std::shared_ptr<hardware::Device>> devices() override { return {}; }
  void setEventHandler(EventHandler) override {}
  hardware::FireWireBus fireWireBus() override { return {}; }
};

/// Output that does something as soon as certain words are in it, one step after the other.
struct StepByStep : std::stringbuf {
  int sync() override {
    if (!steps.empty() && str().find(steps.front().first) != std::string::npos) {
      const auto step = steps.front().second;
      steps.erase(steps.begin());
      step();
    }
    return 0;
  }

  std::vector<std::pair<const char*, std::function<void()>>> steps;
};

/// Runs brvhost's commands with the real module. Its devices deliver as fast as they are read: a camera plays a clip
/// of 40 frames of noise, and loses two of them; its microphone plays a second of noise.
class HostTest : public FrameworkTest {
 protected:
  HostTest() {
    zThread::SetSleepFunction([](unsigned) {});
    zTrace::Default().SetSink([](const char*) {});
    std::string clip = ClipHeader;
    for (unsigned i = 0; i < 40; ++i) clip += clipFrame(i);
    _provider = rigs::install(
        "[device]\nid = cam\nname = Camera\nmedia = video\nlinks = mic\npacing = consumer\n"
        "video fault = lost frame, at frame 3\nvideo fault = lost frame, at frame 4\npicture = media " +
        _folder.write("clip", clip) +
        "\n[device]\nid = mic\nname = Microphone\nmedia = audio\npacing = consumer\nsound = media " +
        _folder.write("sound", waveFile(waveFormat(1, 2, 44'100, 16), _sound)) +
        "\n[device]\nid = desk\nname = Desk\nmedia = video\npacing = consumer\n"
        "video format = 80x60 yuvs, rates 25, name \"Narrow\"\n"
        "video format = 160x90 yuvs, rates 29.97 14.985, name \"Wide\"\n"
        "[device]\nid = busy\nname = Busy\nmedia = video\nlinks = shut\nvideo format = 80x60 yuvs, rates 25\n"
        "configuration failure = " +
        _locked +
        "\n"
        "[device]\nid = broken\nname = Broken\nmedia = audio\naudio format = 48000 Hz\nopen failure = It is in use.\n"
        "[device]\nid = shut\nname = Shut\nmedia = audio\naudio format = 48000 Hz\nopen failure = It is taken.\n"
        "[device]\nid = lone\nname = Lone\nmedia = audio\npacing = consumer\naudio format = 48000 Hz\n");
  }
  ~HostTest() override {
    std::fclose(_log);
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  static std::string clipFrame(unsigned number) { return "FRAME\n" + noise(FrameBytes, number); }

  /// What the host prints, and behind it, if it fails, the reason.
  std::string host(std::vector<std::string> arguments, int expected = ExitDone, const char* module = MODULE_PATH,
                   std::stringbuf* output = nullptr) {
    std::stringbuf text;
    EXPECT_EQ(exitCode(std::move(arguments), output ? *output : text, module), expected);
    return (output ? *output : text).str();
  }
  int exitCode(std::vector<std::string> arguments, std::stringbuf& output, const char* module = MODULE_PATH) {
    arguments.insert(arguments.begin(), {"--module", module});
    Console console(_log, false);
    std::ostream out(&output);
    try {
      return run(parseOptions(arguments, nullptr), out, console);
    } catch (const Failure& failure) {
      out << failure.what();
      return failure.exitCode();
    } catch (const brv::Error& error) {
      out << error.what();
      return ExitFailed;
    }
  }
  /// Until the recording runs and wants for nothing, and the signals are caught.
  void waitUntilItGrows() const {
    std::error_code error;
    while (std::filesystem::file_size(_take, error) < 2'000 || error) std::this_thread::yield();
  }
  /// Of the pictures that arrive, and of the sound, from the beginning.
  void expectWhole(const DecodedMedia& media) const {
    EXPECT_GT(media.pictures.size(), 2U);
    for (std::size_t i = 0; i < media.pictures.size(); ++i) {
      const auto played = static_cast<unsigned>(i < 3 ? i : i + 2) % 40;
      ASSERT_TRUE(media.pictures[i] == clipFrame(played).substr(6)) << i;
    }
    for (std::size_t i = 0; i < media.sound.size(); i += _sound.size()) {
      ASSERT_TRUE(_sound.starts_with(media.sound.substr(i, _sound.size()))) << "sound is missing or doubled";
    }
  }

  TemporaryFolder _folder;
  const std::string _locked = "It is locked.";
  std::string _take = _folder.file("take.mkv");
  std::string _sound = noise(44'100 * 4, 0);
  std::FILE* _log = std::fopen(_folder.file("log").c_str(), "w");
  std::shared_ptr<hardware::simulated::Provider> _provider;
};

TEST_F(HostTest, RecordsExactlyWhatWasAskedForFromTheFirstFrameOfTheFinalStart) {
  const std::string output = host({"record", "camera", "--seconds", "1", _take}, ExitFailed);

  const DecodedMedia media = decodeMedia(_take);
  expectWhole(media);
  EXPECT_TRUE(media.pictures.size() == 28 && media.sound == _sound);
  EXPECT_TRUE(media.aspectNumerator == 10 && media.aspectDenominator == 11);
  for (std::size_t i = 0; i < media.stamps.size(); ++i) {
    EXPECT_EQ(media.stamps[i], std::lround(static_cast<double>(i < 3 ? i : i + 2) * 1'001 / 30)) << "ms";
  }
  // How many came after the recording is a matter of moments.
  EXPECT_EQ(std::regex_replace(output, std::regex("outside [0-9]+|[0-9.]+ MB"), "?"),
            _take +
                "\n"
                "  content     30 x 2, 29.97 frames a second, pixels 10:11, utvideo; sound pcm_s16le\n"
                "  pictures    1.001 s, delivered 28, missing 2, not written 0, ?\n"
                "  gaps        2 frames at 0.100 s\n"
                "  sound       1.000 s, delivered 44100, missing 0, not written 0, ?\n"
                "  loudest     0.0 dB\n  size        ?\n"
                "pictures dropped: 2 lost by the device\n"
                "6.67 % of the picture is missing");
}

TEST_F(HostTest, ReportsATakeOnAPageOfItsOwn) {
  host({"record", "camera", "--seconds", "1", _take, "--report", _folder.file("page")}, ExitFailed);

  const std::string page = _folder.contents("page");
  EXPECT_THAT(page, AllOf(HasSubstr("<p class=\"advice\">6.67 % of the picture is missing"),
                          HasSubstr("<tr><td>0:00.100</td><td>0.067 s of the picture: 2 lost by the device</td></tr>"),
                          HasSubstr("data:image/jpeg;base64,/9j/"), HasSubstr("<figcaption>0:00.000<")));
  EXPECT_THAT(page, testing::ContainsRegex("picture to picture, until 0:00.968, 0 to 120</text><rect [^\n]*<polyline"));
  EXPECT_EQ(page.find("http"), page.npos) << "nothing is loaded";

  std::filesystem::remove(_take);
  EXPECT_THAT(host({"record", "camera", _take, "--report", "/nowhere/page"}, ExitFailed),
              StartsWith("cannot create /nowhere/page: "));
  EXPECT_FALSE(std::filesystem::exists(_take));
}

TEST_F(HostTest, RecordsSoundOfAnotherRateWithoutASeam) {
  std::vector<float> ramp(2 * 48'000);
  for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<float>(i / 2) / 48'000 * (i % 2 ? -1.0F : 1.0F);
  const std::string bytes(reinterpret_cast<const char*>(ramp.data()), ramp.size() * sizeof(float));
  rigs::install("[device]\nid = ramp\nname = Ramp\nmedia = audio\npacing = consumer\nsound = media " +
                _folder.write("ramp", waveFile(waveFormat(3, 2, 48'000, 32), bytes)) + ", once\n");

  host({"record", "ramp", "--seconds", "0.98", _folder.file("take.wav")});

  const std::string sound = decodeMedia(_folder.file("take.wav")).sound;
  std::vector<std::int16_t> samples(2 * 43'218);
  ASSERT_EQ(sound.size(), 2 * samples.size());
  std::memcpy(samples.data(), sound.data(), sound.size());
  for (std::size_t i = 400; i < samples.size(); ++i) {
    const double ideal = 32768.0 * static_cast<double>(i / 2) / 44'100;
    ASSERT_NEAR(samples[i], i % 2 ? -ideal : ideal, 2) << "a ramp shows every seam; sample " << i;
  }
}

TEST_F(HostTest, FinishesTheFileOfASourceThatIsInterruptedAfterAnInquiryOrUnpluggedOrHasOneMediumOnly) {
  std::thread interrupter([&] {
    waitUntilItGrows();
    std::raise(SIGUSR1);
    while (_folder.contents("log").find("  pictures ") == std::string::npos) std::this_thread::yield();
    std::raise(SIGTERM);
  });
  host({"record", "camera", _take}, ExitFailed);
  interrupter.join();
  expectWhole(decodeMedia(_take));
  std::filesystem::remove(_take);

  std::thread unplugger([&] {
    waitUntilItGrows();
    for (const char* id : {"cam", "mic"}) _provider->unplug(id);
  });
  EXPECT_THAT(host({"record", "camera", _take}, ExitFailed), EndsWith("Camera Video was unplugged"));
  unplugger.join();
  expectWhole(decodeMedia(_take));

  host({"record", "lone", "--seconds", "0.5", _take});
  const DecodedMedia lone = decodeMedia(_take);
  EXPECT_TRUE(lone.pictures.empty() && lone.sound.size() == 22'050 * 4);
}

TEST_F(HostTest, StartsNoSourceBeforeSomebodyListens) {
  const auto camera = _provider->device("cam");
  EXPECT_EQ(host({"record", "camera", "tcp://127.0.0.1:1"}, ExitFailed),
            "cannot connect to tcp://127.0.0.1:1: Connection refused");
  const std::string listening = "tcp://127.0.0.1:" + std::to_string(20'000 + ::getpid() % 10'000) + "?listen";
  std::thread interrupter([&] {
    while (_folder.contents("log").find("connecting to " + listening) == std::string::npos) std::this_thread::yield();
    std::raise(SIGTERM);
  });
  EXPECT_THAT(host({"record", "camera", listening}, ExitFailed), StartsWith("interrupted before anybody answered"));
  interrupter.join();
  EXPECT_EQ(camera->capturedVideo(), 0U);
}

TEST_F(HostTest, PutsBackWhatWasSelectedBeforeItAskedForAllRatesAndTellsHowLongATakeMayBe) {
  const brv::Library library({.module = MODULE_PATH});
  const brv::Source source = library.source("Desk Video");
  source.apply({{brv::VideoSettings, 1}, {brv::VideoFPS, 1}});
  Json facts;
  addFormats(facts, source);
  EXPECT_EQ(source.selected(brv::VideoFPS), 1);
  const TakeOptions take{.target = _take, .encoding = encodingFor(_take, "", ""), .hasVideo = true, .seconds = 1e12};
  EXPECT_THAT(outlookText(source, take),
              testing::ContainsRegex("^about [0-9.]+ MB a second: there is room for [0-9]+ h [0-9]+ min, "
                                     "which is less than the 277777777 h 46 min asked for$"));
}

TEST_F(HostTest, SaysWhatIsWrongWithSourcesAndWhatMayHelp) {
  rigs::install(
      "[device]\nid = good\nname = Good\nmedia = video\nlinks = mic\nvideo format = 64x48 yuvs, rates 10\n"
      "video format = 32x24 yuvs, rates 10\n[device]\nid = mic\nname = Mic\nmedia = audio\naudio format = 48000 "
      "Hz\nsound = tone 440 -20\n"
      "[device]\nid = bad\nname = Bad\nmedia = video\nvideo format = 64x48 yuvs, rates 30\n"
      "video fault = lost frame, every 3\npicture = media " +
      _folder.write("black", "YUV4MPEG2 W64 H48 F30:1 Ip A1:1 C422\nFRAME\n" + std::string(64 * 48, 16) +
                                 std::string(64 * 48, '\x80')) +
      "\n[device]\nid = quiet\nname = Quiet\nmedia = audio\naudio format = 48000 Hz\nsound = tone 440 -80\n");
  const auto report = nlohmann::json::parse(host({"doctor", "--json", "--report", _folder.file("page")}, ExitFailed));
  const auto& sources = report["sources"];
  EXPECT_EQ(sources[0]["advice"].size(), 0U) << sources[0];
  EXPECT_NEAR(sources[0]["picture"]["rate"], 10, 0.5);
  EXPECT_NEAR(sources[0]["sound"]["rms"], -23, 0.5);
  EXPECT_THAT(sources[1]["advice"].dump(),
              testing::AllOf(HasSubstr("is black"), HasSubstr("loses pictures"), HasSubstr("Fewer pictures")));
  const std::string page = _folder.contents("page");
  EXPECT_THAT(page, testing::AllOf(HasSubstr("<h2>Bad Video  (video)</h2>"), HasSubstr("data:image/jpeg;base64,/9j/")));
  EXPECT_THAT(page, HasSubstr("<tr><td>Video Settings</td><td>64 x 48</td></tr>\n<tr><td>Video FPS</td>"));
  EXPECT_EQ(page.find("http"), page.npos) << "nothing is loaded";
  EXPECT_THAT(host({"doctor", "quiet"}, ExitFailed), HasSubstr("     advice      The sound is silent."));
}

TEST_F(HostTest, SavesASnapshotFromTheFinalStartWithSquarePixels) {
  const std::string png = _folder.file("take.png"), jpeg = _folder.file("take.jpg");
  EXPECT_EQ(host({"snapshot", "0", png}), png + ": 27 x 2\n");

  const std::string fifth = clipFrame(6).substr(6);  // of those that arrive
  std::vector<std::uint8_t> packed;
  for (std::size_t i = 0; i < 2 * ChromaWidth; ++i) {
    const std::size_t y = i / ChromaWidth * Width + i % ChromaWidth * 2, chroma = 2 * Width + i;
    for (const auto at : {y, chroma, y + 1, chroma + 2 * ChromaWidth}) packed.push_back(fifth[at] & 0xFF);
  }
  const RGBImage image = convertToRGB({packed.data(), 4 * ChromaWidth, Width, 2}, ColorMatrix::bt601);
  png_image read = {};
  read.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&read, png.c_str()), 0) << read.message;
  std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(read));
  ASSERT_NE(png_image_finish_read(&read, nullptr, pixels.data(), 0, nullptr), 0) << read.message;
  EXPECT_EQ(pixels, withSquarePixels(image, {10, 11}).pixels);

  EXPECT_EQ(host({"snapshot", "cam", "-"}), _folder.contents("take.png"));
  EXPECT_EQ(host({"snapshot", "desk", jpeg, "--size", "80x60"}), jpeg + ": 80 x 60\n");
  EXPECT_THAT(_folder.contents("take.jpg"), StartsWith("\xFF\xD8\xFF"));
}

TEST_F(HostTest, RecordsWithTheSettingsOverAllStartsAndNothingWhereOneDoesNotHold) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--set", "fps=1", "--set", "video=1"}, "YUV4MPEG2 W160 H90 F15000:1001 I"},
      {{"--rate", "14.985"}, "YUV4MPEG2 W160 H90 F15000:1001 I"},
      {{"--size", "80x60"}, "YUV4MPEG2 W80 H60 F25:1 I"}};
  for (const auto& [settings, header] : cases) {
    std::vector<std::string> arguments = {"record", "desk", "--seconds", "0.1", _folder.file("take.y4m")};
    arguments.insert(arguments.end(), settings.begin(), settings.end());
    host(arguments);
    EXPECT_THAT(_folder.contents("take.y4m"), StartsWith(header));
  }

  const std::string none = _folder.file("none");
  host({"record", "busy", none + ".mkv", "--set", "video=0"}, ExitFailed);
  host({"snapshot", "desk", none + ".png", "--set", "video=9"}, ExitWrongUse);
  for (const char* file : {"none.mkv", "none.png"}) EXPECT_FALSE(_folder.contains(file)) << file;
}

/// Commands, their words quoted where they have to be, and what they print; "./" stands for a folder.
class CommandsTest : public HostTest, public testing::WithParamInterface<std::string> {
 protected:
  std::string outcome(const std::string& command, const std::string& rig) {
    if (!std::exchange(_isInstalled, true)) _provider = rigs::install(rig);
    std::vector<std::string> arguments;
    std::istringstream words(command);
    for (std::string word; words >> std::quoted(word);)
      arguments.push_back(word.starts_with("./") ? _folder.file(word.substr(2)) : word);
    std::stringbuf output;
    const int code = exitCode(arguments, output);
    const std::string text = output.str() + (code == ExitDone ? "" : "\nexit code " + std::to_string(code));
    // How many came after a recording is a matter of moments, and a file's size one of the encoder's version.
    const std::regex passing(R"x(outside"?:? [0-9]+|[0-9.]+ [MGk]B|"bytes": [0-9]+)x");
    return std::regex_replace(std::regex_replace(text, std::regex(_folder.file("")), "./"), passing, "?");
  }

 private:
  bool _isInstalled = false;
};

TEST_P(CommandsTest, SayWhatTheySaid) {
  transcripts::replay(TRANSCRIPTS, GetParam(),
                      [this](const auto& step, const auto& rig) { return outcome(step, rig); });
}

INSTANTIATE_TEST_SUITE_P(Of, CommandsTest, testing::ValuesIn(transcripts::in(TRANSCRIPTS)),
                         [](const auto& each) { return each.param; });

TEST_F(HostTest, WatchesSourcesThatComeAndGoAndTellsWhatIsNotOffered) {
  const auto elsewhere = [](const std::function<void()>& change) { std::thread(change).join(); };
  const auto watch = [&](std::vector<std::string> arguments, const char* here, const char* gone, const char* back) {
    StepByStep steps;
    steps.steps = {{here, [&] { elsewhere([&] { _provider->unplug("desk"); }); }},
                   {gone, [&] { elsewhere([&] { _provider->plug("desk"); }); }},
                   {back, [] { std::raise(SIGTERM); }}};
    return host(std::move(arguments), ExitDone, MODULE_PATH, &steps);
  };
  const std::string text = watch({"watch", "--quiet"}, "It is taken.", " - Desk", " + Desk");
  EXPECT_EQ(
      std::regex_replace(text, std::regex("\\d\\d:\\d\\d:\\d\\d "), ""),
      "  Camera Video  (video+audio)  cam, mic\n  Desk Video  (video)  desk\n"
      "  Busy Video  (video)  busy\n  Lone Audio  (audio)  lone\n"
      "! Broken: It is in use.\n! Shut: It is taken.\n"
      "a device was removed\n- Desk Video  (video)  desk\na device was plugged in\n+ Desk Video  (video)  desk\n");

  std::istringstream lines(watch({"watch", "--json"}, "It is taken.", "\"removed\"", "\"added\""));
  std::vector<std::string> events;
  for (std::string line; std::getline(lines, line);) events.push_back(nlohmann::json::parse(line)["event"]);
  EXPECT_THAT(events, ElementsAre("present", "present", "present", "present", "unoffered", "unoffered", "detached",
                                  "removed", "attached", "added"));

  EXPECT_THAT(
      host({"watch", "--quiet", "--sources", "--seconds", "0.5"}),
      testing::ContainsRegex("   Camera Video: [1-9][0-9]* pictures, loudest sound -?0.0 dB, [0-9]+ samples lost"));

  rigs::install(
      "[device]\nid = lossy\nname = Lossy\nmedia = video\nvideo format = 64x48 yuvs, rates 240\n"
      "video fault = lost frame, every 2\n");
  const std::string summary = host({"watch", "--quiet", "--sources", "--seconds", "0.5"});
  std::smatch counts;
  ASSERT_TRUE(std::regex_search(summary, counts, std::regex("([0-9]+) pictures, ([0-9]+) samples lost"))) << summary;
  EXPECT_GE(std::stoi(counts[2]) + 2, std::stoi(counts[1])) << "also those that it had not told of";
}

TEST_F(HostTest, TellsASourceThatIsUnpluggedWhileItStartsWhateverWasToBeDoneWithIt) {
  static hardware::simulated::Provider* provider;  // for a plain function, which runs while the camera settles
  provider = _provider.get();
  zThread::SetSleepFunction([](unsigned) { std::thread([] { provider->unplug("desk"); }).join(); });
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"show", "desk"},
                                             {"set", "desk", "video=0"},
                                             {"snapshot", "desk", _take + ".png"},
                                             {"record", "desk", _take},
                                             {"record", "desk", _take, "--set", "video=0"}}) {
    EXPECT_THAT(host(command, ExitFailed), EndsWith("Desk Video was unplugged")) << command.front();
    EXPECT_TRUE(_provider->plug("desk"));
  }
}

TEST_F(HostTest, SaysWhatIsWrongWithACommandAModuleOrTheMachine) {
  EXPECT_THAT(host({"list"}, ExitFailed, "/nowhere/module.so"), HasSubstr("/nowhere/module.so"));
  EXPECT_THAT(host({"list"}, ExitFailed, OTHER_LIBRARY), HasSubstr("the module lacks BRV_IntitializeLibrary, BRV_"));
  hardware::installSystemProvider(std::make_shared<UnknownMachine>());
  EXPECT_EQ(host({"list"}), "System Devices: 0 sources from nowhere\n");
  EXPECT_THAT(host({"watch", "--rig", "/nowhere.rig"}, ExitFailed, "/nowhere/module.so"),
              EndsWith("/nowhere.rig: No such file or directory"));
  EXPECT_EQ(host({"list", "--rig", MODULE_PATH}, ExitFailed), "what is plugged into this machine cannot be found out");
  ::unsetenv("CAPTURE_RIG");
}

}  // namespace
}  // namespace brvhost

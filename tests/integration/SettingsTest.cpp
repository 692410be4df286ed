#include <gmock/gmock.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <lumora/zXML.h>
#include <simulated/SimulatedProvider.h>

#include <atomic>
#include <cstdlib>
#include <random>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"

// Settings as a host exchanges them: records in, records out.

namespace {

using hardware::FrameRateRange;
using hardware::VideoFormat;
using hardware::simulated::Rig;
using hardware::simulated::RigDevice;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr FrameRateRange Slow{1, 15, {1, 15, kCMTimeFlags_Valid, 0}, {1, 1, kCMTimeFlags_Valid, 0}};
constexpr FrameRateRange Fast{1, 60, {1, 60, kCMTimeFlags_Valid, 0}, {1, 1, kCMTimeFlags_Valid, 0}};

VideoFormat format(std::int32_t width, std::int32_t height, std::vector<FrameRateRange> rates) {
  return {0x79757673, width, height, {}, 0, 0, std::move(rates)};
}

hardware::AudioFormat sound(double rate) {
  return {{rate, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0}, kAudioChannelLayoutTag_Stereo, {}};
}

RigDevice device(const std::string& name, bool hasVideo) {
  RigDevice made;
  made.description.name = name;
  made.description.uniqueID = name;
  made.description.hasVideo = hasVideo;
  made.description.hasAudio = !hasVideo;
  return made;
}

/// A record as text, one line for each record, indented by its depth.
std::string outline(const zRecord& record, int depth = 0) {
  std::string text(static_cast<std::size_t>(depth) * 2, ' ');
  text += record.Name();
  for (const zField& field : record.Fields()) {
    text += " " + field.name + "=";
    if (const auto* string = std::get_if<std::string>(&field.value)) text += "'" + *string + "'";
    if (const auto* number = std::get_if<std::uint16_t>(&field.value)) text += "u" + std::to_string(*number);
    if (const auto* number = std::get_if<std::int32_t>(&field.value)) text += "i" + std::to_string(*number);
  }
  text += "\n";
  for (unsigned i = 0; i < record.ChildCount(); ++i) text += outline(*record.Child(i), depth + 1);
  return text;
}

class SettingsTest : public FrameworkTest {
 protected:
  SettingsTest() {
    zThread::SetSleepFunction([](unsigned) {});
    zTrace::Default().SetSink([](const char*) {});
  }
  ~SettingsTest() override {
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  /// A camera with its microphone, a camera alone, and a microphone alone.
  void installStudio() {
    RigDevice pair = device("Pair", true);
    pair.description.videoFormats = {format(640, 480, {Slow}), format(320, 240, {Slow, Fast}), format(0, 0, {})};
    pair.description.linkedDevices = {"Pair Mic"};
    pair.pictures.resize(3);
    RigDevice microphone = device("Pair Mic", false);
    microphone.description.audioFormats = {sound(44100), sound(48000)};
    microphone.description.linkedDevices = {"Pair"};
    RigDevice camera = device("Cam", true);
    camera.description.videoFormats = {format(320, 240, {Slow})};
    RigDevice lone = device("Mic", false);
    lone.description.audioFormats = {sound(48000)};
    install({pair, microphone, camera, lone});
  }
  void install(std::vector<RigDevice> devices) {
    Rig rig;
    rig.devices = std::move(devices);
    hardware::installSystemProvider(std::make_shared<hardware::simulated::Provider>(std::move(rig)));
    host.emplace();
  }

  static std::string parsed(const std::string& text) {
    zRecord record;
    EXPECT_EQ(zXML::ParseBuffer(zXML::Mode, &record, text.data(), static_cast<int>(text.size())), zXML::Success);
    return outline(record);
  }
  template <typename Call>
  std::string record(Call call) {
    int length = 0;
    call(nullptr, &length);
    std::string text(static_cast<std::size_t>(length), '#');
    call(text.data(), &length);
    return text.empty() ? "" : parsed(text);
  }
  std::string options(const std::string& source, const char* parameter) {
    return record([&](char* buffer, int* length) {
      BRV_CALL(host->module, BRV_QueryParameterOptions)(nullptr, source.c_str(), parameter, buffer, length);
    });
  }
  std::string settings(const std::string& source) {
    return record([&](char* buffer, int* length) {
      BRV_CALL(host->module, BRV_GetSourceSettings)(nullptr, source.c_str(), buffer, length);
    });
  }
  std::string validValues(const std::string& source) {
    return record([&](char* buffer, int* length) {
      EXPECT_EQ(BRV_CALL(host->module, BRV_GetValidParameterValues)(nullptr, source.c_str(), buffer, length), 0);
    });
  }
  int set(const std::string& source, const std::vector<std::pair<std::string, int>>& values) {
    zRecord record("whatever");
    for (const auto& [name, value] : values) {
      auto* child = new zRecord("anything");
      child->SetCString("name", name.c_str(), 0);
      child->SetInt32("value", value, 0);
      record.AddChild(child, zRecord::AtEnd);
    }
    zBuffer buffer(0, 0);
    EXPECT_EQ(zXML::RecordToBuffer(&buffer, record, zXML::Format, true, false), zXML::Success);
    return BRV_CALL(host->module, BRV_SetSourceSettings)(nullptr, source.c_str(), buffer.Data());
  }

  std::optional<Host> host;
};

TEST_F(SettingsTest, OptionsHaveTitlesInTheLanguageOfTheHost) {
  installStudio();
  const char* fallback =
      "parameter name='Audio Settings' type='int' global='false'\n"
      "  option value=u0\n"
      "    title lang='' value='av_source_no_audio_settings'\n";
  EXPECT_EQ(options("Cam Video", "Audio Settings"), fallback);

  Host::text(BRV_CALL(host->module, BRV_GetDeviceGroupDisplayName), "de");
  BRV_CALL(host->module, BRV_RegisterLocalizeStringCallback)([](const char*) { return "übersetzt"; });
  EXPECT_EQ(options("Pair Video", "Video Settings"),
            "parameter name='Video Settings' type='int' global='false'\n"
            "  option value=u0\n    title lang='de' value='640 x 480'\n"
            "  option value=u1\n    title lang='de' value='320 x 240'\n"
            "  option value=u2\n    title lang='de' value='Pair Video - übersetzt'\n");
  EXPECT_EQ(options("Mic Audio", "Video FPS"),
            "parameter name='Video FPS' type='int' global='false'\n"
            "  option value=u0\n    title lang='de' value='übersetzt'\n");
  EXPECT_EQ(options("Mic Audio", "Colour"), "parameter name='Colour' type='int' global='false'\n");
}

TEST_F(SettingsTest, SettingsFollowWhatIsApplied) {
  installStudio();
  EXPECT_EQ(settings("Cam Video"),
            "settings\n  parameter name='Video Settings' value=i0\n  parameter name='Video FPS' value=i0\n"
            "  parameter name='Audio Settings' value=i0\n");
  EXPECT_EQ(settings("Mic Audio"),
            "settings\n  parameter name='Video Settings' value=i0\n  parameter name='Video FPS' value=i0\n")
      << "an audio format that nobody chose is not known";
  EXPECT_EQ(settings("nobody"), "");

  EXPECT_EQ(set("Pair Video", {{"Video Settings", 1}, {"Video FPS", 1}, {"Audio Settings", 1}}), 1);
  EXPECT_EQ(settings("Pair Video"),
            "settings\n  parameter name='Video Settings' value=i1\n  parameter name='Video FPS' value=i1\n"
            "  parameter name='Audio Settings' value=i1\n");
  EXPECT_THAT(options("Pair Video", "Video FPS"), testing::HasSubstr("value='60.00'"));

  // In the other order the rate goes to the old format, and the new one brings its own.
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 0}, {"Video Settings", 0}}), 1);
  EXPECT_THAT(settings("Pair Video"), testing::HasSubstr("'Video FPS' value=i0"));
  EXPECT_EQ(set("Pair Video", {{"Video Settings", 2}}), 1);
  EXPECT_EQ(settings("Pair Video"), "settings\n  parameter name='Audio Settings' value=i1\n")
      << "without a name and without rates nothing is known to be selected";
}

TEST_F(SettingsTest, ValidValuesNameEveryChoice) {
  installStudio();
  EXPECT_EQ(validValues("Pair Video"),
            "source\n"
            "  parameter name='Video Settings'\n    option value=i0\n    option value=i1\n    option value=i2\n"
            "  parameter name='Video FPS'\n    option value=i0\n"
            "  parameter name='Audio Settings'\n    option value=i0\n    option value=i1\n");
  EXPECT_EQ(validValues("Mic Audio"), "source\n  parameter name='Audio Settings'\n    option value=i0\n");
  int length = 33;
  EXPECT_EQ(BRV_CALL(host->module, BRV_GetValidParameterValues)(nullptr, "nobody", nullptr, &length), 0);
  EXPECT_EQ(length, 33);
}

TEST_F(SettingsTest, TheResultIsThatOfTheLastParameterThatApplies) {
  installStudio();
  const std::string third = "Mic Audio";
  ASSERT_THAT(host->sources(), ElementsAre("Pair Video", "Cam Video", third));

  EXPECT_EQ(set("Pair Video", {{"Video FPS", 9}}), 0);
  EXPECT_EQ(set("Cam Video", {{"Video Settings", -1}}), -1);
  EXPECT_EQ(set(third, {{"Audio Settings", 1}}), -2);
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 9}, {"Audio Settings", 0}}), 1);
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 9}, {"Colour", 0}}), 0) << "an unknown name leaves the result";
  EXPECT_EQ(set("Cam Video", {{"Audio Settings", 0}, {"video settings", 7}}), 1);
  EXPECT_EQ(set("nobody", {{"Video FPS", 9}}), 1);
  for (const char* noRecord : {"", "hello", "<record/>", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(BRV_CALL(host->module, BRV_SetSourceSettings)(nullptr, "Cam Video", noRecord), 1);
  }
}

TEST_F(SettingsTest, AFailedVideoFormatIsLoggedAndItsErrorConsumed) {
  RigDevice camera = device("Cam", true);
  camera.description.videoFormats = {format(320, 240, {Slow})};
  camera.configurationFailure = "It is 100% busy.";
  install({camera});
  const auto message = [&](int code) {
    return Host::text(BRV_CALL(host->module, BRV_GetErrorMessage), static_cast<void*>(nullptr),
                      static_cast<void*>(nullptr), code);
  };

  EXPECT_EQ(set("Cam Video", {{"Video Settings", 0}}), 0);
  EXPECT_EQ(host->logged("It is 100% busy."), 1);
  EXPECT_EQ(message(0), "");
  EXPECT_EQ(set("Cam Video", {{"Video FPS", 0}}), 0);
  EXPECT_EQ(message(0), "It is 100% busy.");
}

TEST_F(SettingsTest, ANameThatXMLCannotCarryIsReported) {
  RigDevice camera = device("Bad\x01Name", true);
  camera.description.videoFormats = {format(0, 0, {})};
  install({camera});
  const std::string source = host->sources().front();

  EXPECT_EQ(options(source, "Video Settings"), "");
  EXPECT_EQ(host->logged("Failed to Write Settings Record to XML\n"), 1);
}

TEST_F(SettingsTest, CopyCallsCopyWhatThereIsAndForgetIt) {
  installStudio();
  const auto query = BRV_CALL(host->module, BRV_QueryParameterOptions);
  int length = 0;
  query(nullptr, "Cam Video", "Video FPS", nullptr, &length);
  ASSERT_GT(length, 0);
  std::string buffer(static_cast<std::size_t>(length) + 8, '#');

  int tooLong = length + 8;
  query(nullptr, "Cam Video", "Video FPS", buffer.data(), &tooLong);
  EXPECT_EQ(buffer.substr(static_cast<std::size_t>(length)), "########");
  std::string again(static_cast<std::size_t>(length), '#');
  query(nullptr, "Cam Video", "Video FPS", again.data(), &length);
  EXPECT_EQ(again, std::string(again.size(), '#'));

  query(nullptr, "Cam Video", "Video FPS", nullptr, &length);
  int negative = -5;
  query(nullptr, "Cam Video", "Video FPS", again.data(), &negative);
  query(nullptr, "Cam Video", "Video FPS", nullptr, nullptr);
  query(nullptr, "nobody", "Video FPS", again.data(), &length);
  EXPECT_EQ(again, std::string(again.size(), '#'));
}

TEST_F(SettingsTest, AsManyFormatsAsAnIndexHoldsAreListed) {
  RigDevice camera = device("Cam", true);
  for (int i = 0; i < 65'540; ++i) camera.description.videoFormats.push_back(format(16, 16 + i % 1000, {}));
  install({camera});

  const std::string text = options("Cam Video", "Video Settings");

  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 2 * 65'536);
  EXPECT_THAT(text, testing::HasSubstr("option value=u65535\n"));
}

TEST_F(SettingsTest, HostileDocumentsAreAppliedWhollyOrNotAtAll) {
  installStudio();
  zRecord record("settings");
  for (const char* name : {"Video Settings", "Video FPS"}) {
    auto* child = new zRecord("parameter");
    child->SetCString("name", name, 0);
    child->SetInt32("value", 1, 0);
    record.AddChild(child, zRecord::AtEnd);
  }
  zBuffer buffer(0, 0);
  zXML::RecordToBuffer(&buffer, record, zXML::Format, true, false);
  const std::string document(buffer.Data(), buffer.Length());
  std::mt19937 random(7);

  // A few hundred documents, unless the environment asks for more.
  const char* wanted = std::getenv("HOSTILE_DOCUMENTS");
  const int rounds = wanted ? std::atoi(wanted) : 400;
  for (int round = 0; round < rounds; ++round) {
    std::string hostile = document;
    switch (random() % 3) {
      case 0:
        hostile.resize(random() % hostile.size());
        break;
      case 1:
        hostile[random() % hostile.size()] = static_cast<char>(random());
        break;
      default:
        hostile.insert(random() % hostile.size(), document.substr(random() % document.size(), random() % 40));
    }
    zRecord read;
    const bool isRecord = zXML::ParseBuffer(zXML::Mode, &read, hostile.c_str(), -1) == zXML::Success;
    const std::string before = settings("Pair Video");
    const int result = BRV_CALL(host->module, BRV_SetSourceSettings)(nullptr, "Pair Video", hostile.c_str());
    EXPECT_TRUE(result == 1 || (isRecord && result == 0));
    if (!isRecord) {
      EXPECT_EQ(settings("Pair Video"), before);
    }
  }
}

struct Checker {
  std::atomic<int> sizes{0};
  std::atomic<int> wrong{0};

  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<Checker*>(context);
    const bool isLarge = buffer->width == 640 && buffer->height == 480;
    const bool isSmall = buffer->width == 320 && buffer->height == 240;
    if (!isLarge && !isSmall) ++self.wrong;
    self.sizes |= isLarge ? 1 : 2;
    if (buffer->rowBytes < buffer->width * 2) ++self.wrong;
  }
  static void onAudio(void* context, BRV_AudioBuffer* buffer) {
    auto& self = *static_cast<Checker*>(context);
    if (buffer->dataLength <= 0 || buffer->dataLength % 4 != 0 || !buffer->data) ++self.wrong;
  }
};

TEST_F(SettingsTest, ChangesWhileMediaFlowsAreSeenInTheRecords) {
  installStudio();
  Checker checker;
  host->registerVideo("Pair Video", Checker::onVideo, &checker);
  host->registerAudio("Pair Video", Checker::onAudio, &checker);

  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(set("Pair Video", {{"Video Settings", i % 2}, {"Video FPS", i % 2}, {"Audio Settings", i / 2 % 2}}), 1);
    NSRunLoop::mainRunLoop().runForSeconds(0.02);
  }
  for (int i = 0; i < 200 && checker.sizes != 3; ++i) {
    set("Pair Video", {{"Video Settings", i / 10 % 2}});
    NSRunLoop::mainRunLoop().runForSeconds(0.02);
  }
  host->uninitialize();

  EXPECT_EQ(checker.wrong, 0);
  EXPECT_EQ(checker.sizes, 3) << "frames of both formats arrived";
}

}  // namespace

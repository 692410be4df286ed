#include <gmock/gmock.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <lumora/zXML.h>

#include <atomic>
#include <cstdlib>
#include <random>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

// Settings as a host exchanges them: records in, records out.

namespace {

using hardware::FrameRateRange;
using hardware::VideoFormat;
using hardware::simulated::RigDevice;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr FrameRateRange Slow{1, 15, {1, 15, kCMTimeFlags_Valid, 0}, {1, 1, kCMTimeFlags_Valid, 0}};
constexpr FrameRateRange Fast{1, 60, {1, 60, kCMTimeFlags_Valid, 0}, {1, 1, kCMTimeFlags_Valid, 0}};

VideoFormat format(std::int32_t width, std::int32_t height, std::vector<FrameRateRange> rates) {
  return {0x79757673, width, height, {}, 0, 0, std::move(rates)};
}

RigDevice device(const std::string& name, const std::string& link) {
  RigDevice made;
  made.description.name = made.description.uniqueID = name;
  if (!link.empty()) made.description.linkedDevices = {link};
  return made;
}
RigDevice camera(const std::string& name, std::vector<VideoFormat> formats, const std::string& link = "") {
  RigDevice made = device(name, link);
  made.description.hasVideo = true;
  made.pictures.resize(formats.size());
  made.description.videoFormats = std::move(formats);
  return made;
}
RigDevice microphone(const std::string& name, const std::vector<double>& rates, const std::string& link = "") {
  RigDevice made = device(name, link);
  made.description.hasAudio = true;
  for (const double rate : rates) {
    made.description.audioFormats.push_back(
        {{rate, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0}, kAudioChannelLayoutTag_Stereo, {}});
  }
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
  using Values = std::vector<std::pair<std::string, int>>;

  SettingsTest() {
    zThread::SetSleepFunction([](unsigned) {});
    zTrace::Default().SetSink([](const char*) {});
  }
  ~SettingsTest() override {
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  void install(std::vector<RigDevice> devices) {
    rigs::install(std::move(devices));
    host.emplace();
  }
  /// A camera with its microphone, a camera alone, and a microphone alone.
  void installStudio() {
    install({camera("Pair", {format(640, 480, {Slow}), format(320, 240, {Slow, Fast}), format(0, 0, {})}, "Pair Mic"),
             microphone("Pair Mic", {44100, 48000}, "Pair"), camera("Cam", {format(320, 240, {Slow})}),
             microphone("Mic", {48000})});
  }

  /// What an entry point of the two-call convention answers, as an outline.
  template <typename Function, typename... Names>
  std::string answer(Function function, const Names*... names) {
    int length = 0;
    function(nullptr, names..., nullptr, &length);
    std::string text(static_cast<std::size_t>(length), '#');
    function(nullptr, names..., text.data(), &length);
    if (text.empty()) return text;
    zRecord record;
    EXPECT_EQ(zXML::ParseBuffer(zXML::Mode, &record, text.data(), length), zXML::Success);
    return outline(record);
  }
  std::string options(const char* source, const char* parameter) {
    return answer(BRV_CALL(host->module, BRV_QueryParameterOptions), source, parameter);
  }
  std::string settings(const char* source) { return answer(BRV_CALL(host->module, BRV_GetSourceSettings), source); }
  std::string validValues(const char* source) {
    return answer(BRV_CALL(host->module, BRV_GetValidParameterValues), source);
  }

  static std::string document(const Values& values) {
    zRecord record("whatever");
    for (const auto& [name, value] : values) {
      auto* child = new zRecord("anything");
      child->SetCString("name", name.c_str(), 0);
      child->SetInt32("value", value, 0);
      record.AddChild(child, zRecord::AtEnd);
    }
    zBuffer buffer(0, 0);
    EXPECT_EQ(zXML::RecordToBuffer(&buffer, record, zXML::Format, true, false), zXML::Success);
    return {buffer.Data(), buffer.Length()};
  }
  int set(const char* source, const char* text) {
    return BRV_CALL(host->module, BRV_SetSourceSettings)(nullptr, source, text);
  }
  int set(const char* source, const Values& values) { return set(source, document(values).c_str()); }

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
  EXPECT_THAT(options("Pair Video", "Video FPS"), HasSubstr("value='60.00'"));

  // In the other order the rate goes to the old format, and the new one brings its own.
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 0}, {"Video Settings", 0}}), 1);
  EXPECT_THAT(settings("Pair Video"), HasSubstr("'Video FPS' value=i0"));
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
  const char* third = "Mic Audio";
  ASSERT_THAT(host->sources(), ElementsAre("Pair Video", "Cam Video", third));

  EXPECT_EQ(set("Pair Video", {{"Video FPS", 9}}), 0);
  EXPECT_EQ(set("Cam Video", {{"Video Settings", -1}}), -1);
  EXPECT_EQ(set(third, {{"Audio Settings", 1}}), -2);
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 9}, {"Audio Settings", 0}}), 1);
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 9}, {"Colour", 0}}), 0) << "an unknown name leaves the result";
  EXPECT_EQ(set("Cam Video", {{"Audio Settings", 0}, {"video settings", 7}}), 1);
  EXPECT_EQ(set("nobody", {{"Video FPS", 9}}), 1);
  for (const char* noRecord : {"", "hello", "<record/>", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(set("Cam Video", noRecord), 1);
  }
}

TEST_F(SettingsTest, AFailureIsTheSourcesErrorAndThatOfAVideoFormatIsLoggedInstead) {
  RigDevice busy = camera("Cam", {format(320, 240, {Slow})});
  busy.configurationFailure = "It is 100% busy.";
  install({busy});

  EXPECT_EQ(set("Cam Video", {{"Video Settings", 0}}), 0);
  EXPECT_EQ(host->logged("It is 100% busy."), 1);
  EXPECT_EQ(host->errorMessage(0), "");
  EXPECT_EQ(set("Cam Video", {{"Video FPS", 0}}), 0);
  EXPECT_EQ(host->errorMessage(1), "") << "a code that names no source";
  EXPECT_EQ(host->errorMessage(0), "It is 100% busy.");
  EXPECT_EQ(host->errorMessage(-1), "It is 100% busy.") << "the message before stays";
}

TEST_F(SettingsTest, ANameThatXMLCannotCarryIsReported) {
  install({camera("Bad\x01Name", {format(0, 0, {})})});

  EXPECT_EQ(options(host->sources().front().c_str(), "Video Settings"), "");
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
  const std::string untouched(static_cast<std::size_t>(length), '#');
  std::string again = untouched;
  query(nullptr, "Cam Video", "Video FPS", again.data(), &length);
  EXPECT_EQ(again, untouched);

  query(nullptr, "Cam Video", "Video FPS", nullptr, &length);
  int negative = -5;
  query(nullptr, "Cam Video", "Video FPS", again.data(), &negative);
  query(nullptr, "Cam Video", "Video FPS", nullptr, nullptr);
  query(nullptr, "nobody", "Video FPS", again.data(), &length);
  EXPECT_EQ(again, untouched);
}

TEST_F(SettingsTest, AsManyFormatsAsAnIndexHoldsAreListed) {
  std::vector<VideoFormat> formats;
  for (int i = 0; i < 65'540; ++i) formats.push_back(format(16, 16 + i % 1000, {}));
  install({camera("Cam", std::move(formats))});

  const std::string text = options("Cam Video", "Video Settings");

  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 2 * 65'536);
  EXPECT_THAT(text, HasSubstr("option value=u65535\n"));
}

TEST_F(SettingsTest, HostileDocumentsAreAppliedWhollyOrNotAtAll) {
  installStudio();
  const std::string good = document({{"Video Settings", 1}, {"Video FPS", 1}});
  std::mt19937 random(7);

  // A few hundred documents, unless the environment asks for more.
  const char* wanted = std::getenv("HOSTILE_DOCUMENTS");
  const int rounds = wanted ? std::atoi(wanted) : 400;
  for (int round = 0; round < rounds; ++round) {
    std::string hostile = good;
    switch (random() % 3) {
      case 0:
        hostile.resize(random() % hostile.size());
        break;
      case 1:
        hostile[random() % hostile.size()] = static_cast<char>(random());
        break;
      default:
        hostile.insert(random() % hostile.size(), good.substr(random() % good.size(), random() % 40));
    }
    zRecord read;
    const bool isRecord = zXML::ParseBuffer(zXML::Mode, &read, hostile.c_str(), -1) == zXML::Success;
    const std::string before = settings("Pair Video");
    const int result = set("Pair Video", hostile.c_str());
    EXPECT_TRUE(result == 1 || (isRecord && result == 0));
    EXPECT_TRUE(isRecord || settings("Pair Video") == before) << hostile;
  }
}

struct Checker {
  std::atomic<int> sizes{0};
  std::atomic<int> wrong{0};

  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<Checker*>(context);
    const bool isLarge = buffer->width == 640 && buffer->height == 480;
    const bool isSmall = buffer->width == 320 && buffer->height == 240;
    if (isLarge == isSmall || buffer->rowBytes < buffer->width * 2) ++self.wrong;
    self.sizes |= isLarge ? 1 : 2;
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

  for (int i = 0; i < 30 || (i < 230 && checker.sizes != 3); ++i) {
    const int choice = i < 30 ? i % 2 : i / 10 % 2;  // a slow machine gets more time for each
    EXPECT_EQ(set("Pair Video", {{"Video Settings", choice}, {"Video FPS", choice}, {"Audio Settings", i / 2 % 2}}), 1);
    NSRunLoop::mainRunLoop().runForSeconds(0.02);
  }
  host->uninitialize();

  EXPECT_EQ(checker.wrong, 0);
  EXPECT_EQ(checker.sizes, 3) << "frames of both formats arrived";
}

}  // namespace

#include <gmock/gmock.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

// Settings as a host exchanges them: records in, records out.

namespace {

using testing::HasSubstr;
using testing::Not;

/// A camera with its microphone, a camera alone, a microphone alone, and a camera that cannot be configured.
constexpr const char* Studio =
    "[device]\nid = p\nname = Pair\nmedia = video\nlinks = pm\nvideo format = 640x480 yuvs, rates 15, name \"Large\"\n"
    "video format = 320x240 yuvs, rates 15 59.94\nvideo format = 0x0 yuvs, delivers 64x48, rates 15\n"
    "[device]\nid = pm\nname = Pair Mic\nmedia = audio\naudio format = 44100 Hz\naudio format = 48000 Hz\n"
    "[device]\nid = c\nname = Cam\nmedia = video\nvideo format = 320x240 yuvs, rates 15\n"
    "[device]\nid = m\nname = Mic\nmedia = audio\naudio format = 48000 Hz\n"
    "[device]\nid = b\nname = Busy\nmedia = video\nvideo format = 320x240 yuvs, rates 15\n"
    "configuration failure = It is 100% busy.\n";

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

  /// What an entry point of the two-call convention answers, as an outline.
  template <typename Function, typename... Names>
  std::string answer(Function function, const Names*... names) {
    int length = 0;
    function(nullptr, names..., nullptr, &length);
    std::string text(static_cast<std::size_t>(length), '#');
    function(nullptr, names..., text.data(), &length);
    zRecord record;
    return zXML::ParseBuffer(zXML::Mode, &record, text.data(), length) == zXML::Success ? outline(record) : text;
  }
  std::string options(const char* source, const char* parameter) {
    return answer(BRV_CALL(host.module, BRV_QueryParameterOptions), source, parameter);
  }
  std::string settings(const char* source) { return answer(BRV_CALL(host.module, BRV_GetSourceSettings), source); }

  int set(const char* source, const char* text) {
    return BRV_CALL(host.module, BRV_SetSourceSettings)(nullptr, source, text);
  }
  int set(const char* source, const Values& values) {
    zRecord record("whatever");
    for (const auto& [name, value] : values) {
      auto* child = new zRecord("anything");
      child->SetCString("name", name.c_str(), 0);
      child->SetInt32("value", value, 0);
      record.AddChild(child, zRecord::AtEnd);
    }
    zBuffer buffer(0, 0);
    zXML::RecordToBuffer(&buffer, record, zXML::Format, true, false);
    return set(source, std::string(buffer.Data(), buffer.Length()).c_str());
  }

  const std::shared_ptr<hardware::Provider> provider = rigs::install(Studio);
  const Host host;
};

TEST_F(SettingsTest, OptionsHaveTitlesInTheLanguageOfTheHost) {
  EXPECT_EQ(options("Cam Video", "Audio Settings"),
            "parameter name='Audio Settings' type='int' global='false'\n"
            "  option value=u0\n    title lang='' value='av_source_no_audio_settings'\n");
  Host::text(BRV_CALL(host.module, BRV_GetDeviceGroupDisplayName), "de");
  BRV_CALL(host.module, BRV_RegisterLocalizeStringCallback)([](const char*) { return "übersetzt"; });
  EXPECT_EQ(options("Pair Video", "Video Settings"),
            "parameter name='Video Settings' type='int' global='false'\n"
            "  option value=u0\n    title lang='de' value='Large, 640 x 480'\n"
            "  option value=u1\n    title lang='de' value='320 x 240'\n"
            "  option value=u2\n    title lang='de' value='Pair Video - übersetzt'\n");
  EXPECT_THAT(options("Mic Audio", "Video FPS"), HasSubstr("value='übersetzt'"));
  EXPECT_EQ(options("Mic Audio", "Colour"), "parameter name='Colour' type='int' global='false'\n");
  EXPECT_EQ(options("Cam Video", "\x01"), "") << "XML cannot carry it";
  EXPECT_EQ(host.logged("Failed to Write Settings Record to XML\n"), 1);
}

TEST_F(SettingsTest, SettingsFollowWhatIsAppliedInItsOrder) {
  const auto all = [](const std::string& value) {
    return "settings\n  parameter name='Video Settings' value=" + value +
           "\n  parameter name='Video FPS' value=" + value + "\n  parameter name='Audio Settings' value=" + value +
           "\n";
  };
  EXPECT_EQ(settings("Cam Video"), all("i0"));
  EXPECT_THAT(settings("Mic Audio"), Not(HasSubstr("Audio"))) << "a format that nobody chose is not known";
  EXPECT_EQ(settings("nobody"), "");

  EXPECT_EQ(set("Pair Video", {{"Video Settings", 1}, {"Video FPS", 1}, {"Audio Settings", 1}}), 1);
  EXPECT_EQ(settings("Pair Video"), all("i1"));
  EXPECT_THAT(options("Pair Video", "Video FPS"), HasSubstr("value='59.94'"));
  EXPECT_EQ(set("Pair Video", {{"Video FPS", 0}, {"Video Settings", 2}}), 1);
  EXPECT_EQ(settings("Pair Video"),
            "settings\n  parameter name='Video FPS' value=i0\n  parameter name='Audio Settings' value=i1\n")
      << "what has no name is not known to be selected";

  const auto validValues = BRV_CALL(host.module, BRV_GetValidParameterValues);
  EXPECT_EQ(answer(validValues, "Pair Video"),
            "source\n"
            "  parameter name='Video Settings'\n    option value=i0\n    option value=i1\n    option value=i2\n"
            "  parameter name='Video FPS'\n    option value=i0\n"
            "  parameter name='Audio Settings'\n    option value=i0\n    option value=i1\n");
  EXPECT_EQ(answer(validValues, "nobody"), "");
}

TEST_F(SettingsTest, TheResultIsThatOfTheLastParameterThatApplies) {
  const struct {
    const char* source;  ///< the first, the second and the fourth in the list
    Values values;
    int result;
  } cases[] = {{"Pair Video", {{"Video FPS", 9}}, 0},
               {"Cam Video", {{"Video Settings", -1}}, -1},
               {"Mic Audio", {{"Audio Settings", 1}}, -3},
               {"Pair Video", {{"Video FPS", 9}, {"Audio Settings", 0}}, 1},
               {"Pair Video", {{"Video FPS", 9}, {"Colour", 0}}, 0},
               {"Cam Video", {{"Audio Settings", 0}, {"video settings", 7}}, 1},
               {"nobody", {{"Video FPS", 9}}, 1}};
  for (const auto& each : cases) EXPECT_EQ(set(each.source, each.values), each.result) << each.source;
  for (const char* noRecord : {"", "<record/>", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(set("Cam Video", noRecord), 1);
  }
}

TEST_F(SettingsTest, AFailureIsTheSourcesErrorAndThatOfAVideoFormatIsLoggedInstead) {
  EXPECT_EQ(set("Busy Video", {{"Video Settings", 0}}), -2);
  EXPECT_EQ(host.logged("It is 100% busy."), 1);
  EXPECT_EQ(host.errorMessage(-2), "");
  EXPECT_EQ(set("Busy Video", {{"Video FPS", 0}}), -2);
  EXPECT_EQ(host.errorMessage(1), "") << "a code that names no source";
  EXPECT_EQ(host.errorMessage(-2), "It is 100% busy.");
  EXPECT_EQ(host.errorMessage(-9), "It is 100% busy.") << "the message before stays";
}

TEST_F(SettingsTest, CopyCallsCopyWhatThereIsAndForgetIt) {
  const auto query = [&](char* buffer, int length) {
    BRV_CALL(host.module, BRV_QueryParameterOptions)(nullptr, "Cam Video", "Video FPS", buffer, &length);
    return length;
  };
  const int length = query(nullptr, 0);
  ASSERT_GT(length, 5);
  for (const auto& [room, copied] : {std::pair(length + 8, length), {5, 5}, {-5, 0}}) {
    std::string buffer(static_cast<std::size_t>(length) + 8, '#');
    query(nullptr, 0);
    query(buffer.data(), room);
    EXPECT_EQ(buffer.find_last_not_of('#') + 1, static_cast<std::size_t>(copied)) << room;
    query(buffer.assign(buffer.size(), '#').data(), length);
    EXPECT_EQ(buffer.find_first_not_of('#'), std::string::npos) << "the text was forgotten";
  }
}

}  // namespace

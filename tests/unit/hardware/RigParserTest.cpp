#include "simulated/RigParser.h"

#include <gmock/gmock.h>

#include <string>
#include <tuple>

#include "simulated/RigValues.h"
#include "simulated/Streams.h"
#include "support/MediaFiles.h"
#include "support/Rigs.h"
#include "support/TemporaryFolder.h"

namespace hardware::simulated {
namespace {

using testing::HasSubstr;

const std::string Camera = "[device]\nid = cam\nname = Camera\nmedia = video\n";
const std::string Microphone = "[device]\nid = mic\nname = Microphone\nmedia = audio\n";
const std::string Format = "video format = 640x480 2vuy, rates 30";

std::string errorIn(const std::string& text, const std::string& file = "desk.rig") {
  const auto result = parseRig(text, file);
  const auto* error = std::get_if<RigError>(&result);
  return error ? error->message() : "none";
}

TEST(RigParserTest, ErrorsNameTheLineAndTheReason) {
  const std::tuple<std::string, int, const char*> cases[] = {
      {"id = cam\n", 1, "before the first section"},
      {"\n# nothing\n[gadget]\n", 3, "unknown section 'gadget'"},
      {"[device]\nid = a\nid = b\n", 3, "'id' is given twice"},
      {"[device]\ncolour = red\n", 2, "a device has no 'colour'"},
      {Camera + "video format = 640by480 2vuy, rates 30\n", 5, "'640by480' is not a size"},
      {Camera + "video format = 640x480 2vuy, rates 30-15\n", 5, "lower rate"},
      {Camera + Format + "\nsound = tone 440\n", 6, "the device has no sound"},
      {Camera + Format + "\nclock drift = 1e9 ppm\n", 6, "not a number from"},
      {Camera + Format + "\npicture = media nowhere.y4m\n", 6, "No such file"},
      {Camera + Format + "\n" + Camera + Format, 7, "another device has the id 'cam'"},
      {Microphone + "audio format = 48000 Hz\naudio fault = lost frame, every 2\n", 6, "unknown: 'lost frame'"},
      {Camera + Format + "\nrunning failure = \"Loose, again\", for 5 s, at 2 s\n", 6, "why, when and how long"},
      {Camera + Format + "\npacing = consumer\nrunning failure = Loose, at 5 s, for 2 s\n", 7, "paced by its consumer"},
      {"[script]\nat 5 s = plug cam\n", 2, "there is no device 'cam'"},
      {"[firewire bus]\nlist = absent\nunit = 1\n", 3, "has no units"},
      {Camera + "video format = 640x480 2vuy, rates nan", 5, ""},
      {Camera + "video format = 640x480 2vuy, rates 30/0", 5, ""},
      {Camera + Format + "\npicture = media", 6, "the path of a clip is missing"},
      {"[device]\nname = Cam\xC2\x9Bm", 2, "control character"},
      {"[device]\nname = Cam\xE9ra", 2, "not UTF-8"},
  };
  for (const auto& [text, line, reason] : cases) {
    EXPECT_THAT(errorIn(text), testing::StartsWith("desk.rig:" + std::to_string(line) + ": ")) << text;
    EXPECT_THAT(errorIn(text), HasSubstr(reason)) << text;
  }
  for (const std::string path : {"/nowhere/missing.rig", "/"}) {
    EXPECT_THAT(std::get<RigError>(loadRig(path)).message(), HasSubstr(path + ": "));
  }
}

// The properties that no other test depends on.
TEST(RigParserTest, PropertiesReachTheRig) {
  const Rig rig = rigs::parsed(
      "\xEF\xBB\xBF# A rig\r\n[device]\r\nid = cam\r\nname = Caméra = 1\r\nmedia = video, muxed\r\n"
      "video format = 640x480 2vuy, rates 15-30 59.94\r\n"
      "video format = 0x0 mp2t, delivers 720x576, rates 25, name \"PAL, wide\", active\r\n"
      "audio format = 48000 Hz, 24-bit integer, 6 channels, big endian, planar, non-mixable, layout 5.1\r\n"
      "audio format = 44100 Hz, 8-bit unsigned, mono, active\r\n"
      "video timescale = 600\r\naudio timescale = 90000\r\nclock jitter = 1.5 ms\r\nlinks = mic\r\n"
      "firewire unit = 0x8080880303480cd1, mpeg\r\n[firewire bus]\r\nopen status = -536870212\r\nunit = 12, dv\r\n" +
      Microphone + "audio format = 48000 Hz");

  const RigDevice& device = rig.devices.at(0);
  const DeviceDescription& described = device.description;
  EXPECT_TRUE(described.name == "Caméra = 1" && described.videoFormats.at(1).name == "PAL, wide");
  EXPECT_TRUE(described.videoFormats[1].width == 0 && device.pictures[1].height == 576);
  EXPECT_TRUE(described.initialVideoFormat == 1 && described.initialAudioFormat == 1);
  EXPECT_EQ(described.audioFormats.at(0).stream.mFormatFlags,
            AudioFormatFlags{kAudioFormatFlagIsPacked | kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian |
                             kAudioFormatFlagIsNonInterleaved | kAudioFormatFlagIsNonMixable});
  EXPECT_TRUE(device.videoTimescale == 600 && device.audioTimescale == 90000 && device.jitterInSeconds == 0.0015);
  EXPECT_THAT(rig.devices.at(1).description.linkedDevices, testing::ElementsAre("cam")) << "said on the other side";
  EXPECT_TRUE(device.fireWireUnit->guid == 0x8080880303480cd1u && rig.bus.units->at(0).guid == 12);
  EXPECT_EQ(rig.bus.openStatus, -536870212);
}

TEST(RigParserTest, RatesAreExactFractionsAndClocksCountInUnitsThatHoldThem) {
  const std::tuple<const char*, CMTime, std::int32_t> ratesDurationsAndTimescales[] = {
      {"30", CMTimeMake(1, 30), 30000},
      {"29.97", CMTimeMake(1001, 30000), 30000},
      {"23.98", CMTimeMake(1001, 24000), 24000},
      {"12.5", CMTimeMake(2, 25), 30000},
      {"7", CMTimeMake(1, 7), 24003},
      {"30000/1001", CMTimeMake(1001, 30000), 30000},
      {"14.985", CMTimeMake(1001, 15000), 30000}};
  for (const auto& [rate, duration, timescale] : ratesDurationsAndTimescales) {
    const auto parsed = parseFrameRate(rate);
    EXPECT_TRUE(parsed && parsed->value == duration.value && parsed->timescale == duration.timescale) << rate;
    EXPECT_EQ(exactTimescale(duration), timescale) << rate;
  }
}

TEST(RigParserTest, AClipFitsTheFormatThatIsGiven) {
  const TemporaryFolder folder;
  folder.write("clip, one.y4m", smallClip(1));
  EXPECT_THAT(errorIn(Camera + "picture = media \"clip, one.y4m\"\n" + Format, folder.file("desk.rig")),
              HasSubstr("4x2 is not the format's 640x480"));
}

}  // namespace
}  // namespace hardware::simulated

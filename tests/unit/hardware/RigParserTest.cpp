#include "simulated/RigParser.h"

#include <gmock/gmock.h>

#include <sstream>
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
      {Camera + Format + "\nsound = tone 440\n", 6, "the device has no sound"},
      {Camera + Format + "\npicture = media nowhere.y4m\n", 6, "No such file"},
      {Camera + Format + "\n" + Camera + Format, 7, "another device has the id 'cam'"},
      {Camera + Format + "\npacing = consumer\nrunning failure = Loose, at 5 s, for 2 s\n", 7, "paced by its consumer"},
      {"[script]\nat 5 s = plug cam\n", 2, "there is no device 'cam'"},
      {"[firewire bus]\nlist = absent\nunit = 1\n", 3, "has no units"},
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

TEST(RigParserTest, ValuesAreTakenUpToTheirLimits) {
  const std::string video = Camera + Format + "\n", audio = Microphone + "audio format = 48000 Hz\n";
  const struct {
    std::string before;
    const char *right, *wrong;  ///< several, with a semicolon between them
  } cases[] = {
      {Camera + "video format = ",
       "1x16384 2vuy, rates 1000;16384x1 2vuy, rates 1000/1 0.5-1000;0x0 mp2t, delivers 2x2, rates 25",
       "16385x1 2vuy, rates 1;1x16385 2vuy, rates 1;-1x1 2vuy, rates 1;1x0 2vuy, rates 1;2by2 2vuy, rates 1;"
       "0x0 mp2t, rates 25;2x2 2vuy;2x2 2vu, rates 1;2x2, rates 1;2x2 2vuy 7, rates 1;2x2 2vuy,, rates 1;"
       "2x2 2vuy, rates 1, name \"x;2x2 2vuy, rates 1000.1;2x2 2vuy, rates 1001/1;2x2 2vuy, rates 0;"
       "2x2 2vuy, rates 5-;2x2 2vuy, rates 5-6-;2x2 2vuy, rates 5-4;2x2 2vuy, rates nan;2x2 2vuy, rates 30/0;"
       "2x2 2vuy, rates 0/1;2x2 2vuy, rates 1, presentation 2;2x2 2vuy, rates 1, delivers 2;"
       "2x2 2vuy, rates 1, sideways"},
      {Microphone + "audio format = ",
       "1000 Hz, 8-bit integer;768000 Hz, 32 channels, 64-bit float;"
       "9000 Hz, 32-bit float, 8 channels, layout 7.1;9000 Hz, 16-bit integer;"
       "9000 Hz, 32-bit integer, 3 channels, layout unknown",
       "999 Hz;768001 Hz;x Hz;9000 Hz, 33 channels;9000 Hz, 0 channels;9000 Hz, 16-bit float;9000 Hz, 12-bit integer;"
       "9000 Hz, 64-bit integer;9000 Hz, 16-bit unsigned;9000 Hz, mono, layout stereo;9000 Hz, layout 9.9;"
       "9000 Hz, loud;9000 Hz,"},
      {audio + "sound = ", "tone 0;tone 384000 -200;tone 440 0",
       "tone -1;tone 384001;tone 440 -201;tone 440 1;tone;tone 440 0 0;noise;media;media \"x"},
      {audio + "audio buffer = ", "1;65536", "0;65537;-1;1.5"},
      {audio + "audio timescale = ", "1;2147483647", "0;2147483648"},
      {audio + "audio fault = ", "lost buffer, at buffer 0",
       "lost frame, every 2;no image, every 1;undecodable, every 1"},
      {video + "clock drift = ", "-100000 ppm;100000 ppm", "-100001 ppm;100001 ppm;1 s;x ppm"},
      {video + "clock jitter = ", "0 ms;1000 ms", "-1 ms;1001 ms"},
      {video + "pixel aspect = ", "1 : 1", "0:1;1:0;4/3;4:"},
      {video + "pacing = ", "real time;consumer", "fast"},
      {video + "plugged in = ", "yes;no", "maybe"},
      {video + "links = ", "", "cam;ghost"},
      {video + "picture = ", "test picture", "media;media \"x;media x, twice;film"},
      {video + "video fault = ",
       "lost frame, at frame 4294967295;no image, every 4294967295;undecodable, at 1000000 s;"
       "timescale 1, every 1",
       "lost frame;lost frame,;lost frame, every 0;lost frame, every 4294967296;lost frame, at frame 4294967296;"
       "lost frame, at -1 s;lost frame, at 1000001 s;lost frame, at buffer 1;timescale 0, every 1;late, every 1"},
      {video + "running failure = ", "x, at 0 s, for 1000000 s;x, at 1000000 s, for 0 s",
       "x, at -1 s, for 1 s;x, at 1 s, for -1 s;x, at 1 s, for 1000001 s;x, at 1000001 s, for 1 s;x, at 1 s;"
       "x,, at 1 s;x, for 5 s, at 2 s"},
      {video + "firewire unit = ", "0xffffffffffffffff, dv, mpeg;0;0Xab", "0x10000000000000000;0x;1, tape;1,,dv"},
      {"[firewire bus]\nopen status = ", "2147483647;-2147483647", "2147483648;-2147483648"},
      {video + "[script]\nat ", "0 s = plug cam;1000000 s = unplug cam",
       "-1 s = plug cam;1000001 s = plug cam;1 s = pull cam;1 s = plug"},
  };
  const auto forEach = [](const std::string& values, const auto& check) {
    std::istringstream all(values);
    for (std::string value; std::getline(all, value, ';');) check(value);
  };
  for (const auto& each : cases) {
    forEach(each.right, [&](const std::string& value) { EXPECT_EQ(errorIn(each.before + value), "none") << value; });
    forEach(each.wrong, [&](const std::string& value) { EXPECT_NE(errorIn(each.before + value), "none") << value; });
  }
}

// The properties that no other test depends on.
TEST(RigParserTest, PropertiesReachTheRig) {
  const Rig rig = rigs::parsed(
      "\xEF\xBB\xBF# A rig\r\n[device]\r\nid = cam\r\nname = Caméra = 1\r\nmedia = video, muxed\r\n"
      "video format = 640x480 2vuy, rates 15-30 59.94\r\n"
      "video format = 0x0 mp2t, delivers 720x576, rates 25, presentation 7x5, name \"PAL, wide\", active\r\n"
      "audio format = 48000 Hz, 24-bit integer, 6 channels, big endian, planar, non-mixable, layout 5.1\r\n"
      "audio format = 44100 Hz, 8-bit unsigned, mono, active\r\n"
      "video timescale = 600\r\naudio timescale = 90000\r\nclock jitter = 1.5 ms\r\nlinks = mic\r\n"
      "firewire unit = 0x8080880303480cd1, mpeg\r\n[firewire bus]\r\nopen status = -536870212\r\nunit = 12, dv\r\n" +
      Microphone + "audio format = 48000 Hz");

  const RigDevice& device = rig.devices.at(0);
  const DeviceDescription& described = device.description;
  EXPECT_TRUE(described.name == "Caméra = 1" && described.videoFormats.at(1).name == "PAL, wide");
  EXPECT_TRUE(described.videoFormats[1].presentationWidth == 7 && described.videoFormats[1].presentationHeight == 5);
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

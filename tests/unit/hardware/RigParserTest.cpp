#include "simulated/RigParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "simulated/RigValues.h"
#include "support/MediaFiles.h"
#include "support/Rigs.h"
#include "support/TemporaryFolder.h"

namespace hardware::simulated {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string Camera = "[device]\nid = cam\nname = Camera\nmedia = video\n";
const std::string Microphone = "[device]\nid = mic\nname = Microphone\nmedia = audio\n";
const std::string CameraFormat = "video format = 640x480 2vuy, rates 30\n";

TEST(RigParserTest, ErrorsNameTheLineAndTheReason) {
  const std::tuple<std::string, int, const char*> cases[] = {
      {"id = cam\n", 1, "before the first section"},
      {"\n# nothing\n[gadget]\n", 3, "unknown section 'gadget'"},
      {"[device]\ncolour = red\n", 2, "a device has no 'colour'"},
      {"[device]\nid = a\nid = b\n", 3, "'id' is given twice"},
      {Camera + "video format = 640by480 2vuy, rates 30\n", 5, "'640by480' is not a size"},
      {Camera + "video format = 640x480 2vuy, rates 30-15\n", 5, "lower rate"},
      {Camera + "video format = 640x480 2vuy, rates 30,\n", 5, "between two commas"},
      {Camera + CameraFormat + "sound = tone 440\n", 6, "the device has no sound"},
      {Camera + CameraFormat + "clock drift = 1e9 ppm\n", 6, "not a number from"},
      {Camera + CameraFormat + "picture = media nowhere.y4m\n", 6, "No such file"},
      {Camera + CameraFormat + Camera + CameraFormat, 7, "another device has the id 'cam'"},
      {Microphone + "audio format = 48000 Hz\naudio fault = lost frame, every 2\n", 6, "unknown: 'lost frame'"},
      {"[script]\nat 5 s = plug cam\n", 2, "there is no device 'cam'"},
      {"[firewire bus]\nlist = absent\nunit = 1\n", 3, "has no units"},
  };
  for (const auto& [text, line, reason] : cases) {
    const auto result = parseRig(text, "desk.rig");
    const auto* error = std::get_if<RigError>(&result);
    ASSERT_NE(error, nullptr) << text;
    EXPECT_THAT(error->message(), testing::StartsWith("desk.rig:" + std::to_string(line) + ": ")) << text;
    EXPECT_THAT(error->reason, HasSubstr(reason)) << text;
  }
  for (const std::string format :
       {"640x0 2vuy, rates 30", "640x480 abc, rates 30", "640x480 2vuy, rates 30/0", "640x480 2vuy, rates nan",
        "640x480 2vuy, rates 30, name \"x", "0x0 2vuy, rates 30"}) {
    EXPECT_EQ(std::get<RigError>(parseRig(Camera + "video format = " + format, "desk.rig")).line, 5) << format;
  }
  for (const std::string path : {"/nowhere/missing.rig", "/"}) {
    EXPECT_THAT(std::get<RigError>(loadRig(path)).message(), HasSubstr(path + ": "));
  }
}

TEST(RigParserTest, PropertiesReachTheRig) {
  const Rig rig = rigs::parsed(
      "\xEF\xBB\xBF# A rig\r\n[device]\r\nid = cam\r\nname = Caméra = 1\r\nmedia = video, muxed\r\n"
      "video format = 640x480 2vuy, rates 15-30 59.94\r\n"
      "video format = 0x0 mp2t, delivers 720x576, rates 25, name \"PAL, wide\", active\r\n"
      "audio format = 44100 Hz, 8-bit unsigned, mono\r\n"
      "audio format = 48000 Hz, 24-bit integer, 6 channels, big endian, planar, non-mixable, layout 5.1, active\r\n"
      "video timescale = 600\r\naudio timescale = 90000\r\nclock drift = -50 ppm\r\nclock jitter = 1.5 ms\r\n"
      "open failure = It is in use.\r\nconfiguration failure = It is locked.\r\nlinks = mic\r\n"
      "firewire unit = 0x8080880303480cd1, mpeg\r\n[firewire bus]\r\nopen status = -536870212\r\nunit = 12, dv\r\n" +
      Microphone + "audio format = 48000 Hz");

  const RigDevice& device = rig.devices.at(0);
  const DeviceDescription& described = device.description;
  ASSERT_TRUE(described.videoFormats.size() == 2 && described.audioFormats.size() == 2);
  EXPECT_TRUE(described.name == "Caméra = 1" && described.videoFormats[1].name == "PAL, wide");
  EXPECT_TRUE(described.videoFormats[1].width == 0 && device.pictures[1].height == 576);
  EXPECT_TRUE(described.initialVideoFormat == 1 && described.initialAudioFormat == 1);
  const AudioStreamBasicDescription& surround = described.audioFormats[1].stream;
  EXPECT_EQ(surround.mFormatFlags,
            AudioFormatFlags{kAudioFormatFlagIsPacked | kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian |
                             kAudioFormatFlagIsNonInterleaved | kAudioFormatFlagIsNonMixable});
  EXPECT_TRUE(device.videoTimescale == 600 && device.audioTimescale == 90000);
  EXPECT_TRUE(device.driftInPartsPerMillion == -50 && device.jitterInSeconds == 0.0015);
  EXPECT_TRUE(device.openFailure == "It is in use." && device.configurationFailure == "It is locked.");
  EXPECT_THAT(rig.devices.at(1).description.linkedDevices, ElementsAre("cam")) << "said on the other side";
  EXPECT_EQ(device.fireWireUnit->guid, 0x8080880303480cd1u);
  EXPECT_TRUE(rig.bus.openStatus == -536870212 && rig.bus.units->at(0).guid == 12);
}

TEST(RigParserTest, RatesAreExactFractions) {
  const std::pair<std::string, std::string> ratesAndDurations[] = {
      {"30", "1/30"},          {"29.97", "1001/30000"},   {"23.976", "1001/24000"},
      {"23.98", "1001/24000"}, {"119.88", "1001/120000"}, {"30000/1001", "1001/30000"},
      {"12.5", "2/25"},        {"14.985", "1001/15000"},  {"0.5", "2/1"}};
  for (const auto& [rate, expected] : ratesAndDurations) {
    const auto duration = parseFrameRate(rate);
    EXPECT_EQ(std::to_string(duration->value) + "/" + std::to_string(duration->timescale), expected);
  }
}

TEST(RigParserTest, FormatsAreTakenFromClipsOrMustFitThem) {
  TemporaryFolder folder;
  folder.write("clip, one.y4m", "YUV4MPEG2 W4 H2 F30000:1001 A8:9 C422\nFRAME\n" + std::string(16, 'x'));
  folder.write("clip.wav", waveFile(waveFormat(1, 1, 22050, 16), "abcd"));
  const std::string picture = "picture = media \"clip, one.y4m\"\n";
  const std::string sound = "sound = media clip.wav\n";
  const std::string file = folder.write("desk.rig", "[device]\nid = a\nname = A\nmedia = muxed\n" + picture + sound);

  const DeviceDescription described = std::get<Rig>(loadRig(file)).devices.at(0).description;
  EXPECT_EQ(described.videoFormats.at(0).width, 4);
  EXPECT_EQ(CMTimeCompare(described.videoFormats[0].frameRates.at(0).minFrameDuration, CMTimeMake(1001, 30000)), 0);
  EXPECT_EQ(described.pixelAspectRatio->vertical, 9);
  EXPECT_EQ(described.audioFormats.at(0).stream.mSampleRate, 22050);

  EXPECT_THAT(std::get<RigError>(parseRig(Camera + picture + CameraFormat, file)).message(),
              HasSubstr("4x2 is not the format's 640x480"));
  EXPECT_EQ(std::get<RigError>(parseRig(Microphone + "audio format = 48000 Hz\n" + sound, file)).line, 6);
}

}  // namespace
}  // namespace hardware::simulated

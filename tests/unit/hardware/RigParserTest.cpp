#include "simulated/RigParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "MediaFiles.h"
#include "simulated/DemoRig.h"
#include "simulated/RigValues.h"

namespace hardware::simulated {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string Camera = "[device]\nid = cam\nname = Camera\nmedia = video\n";
const std::string Microphone = "[device]\nid = mic\nname = Microphone\nmedia = audio\n";
const std::string CameraFormat = "video format = 640x480 2vuy, rates 30\n";

Rig rigOf(const std::variant<Rig, RigError>& result) {
  if (const auto* error = std::get_if<RigError>(&result)) {
    ADD_FAILURE() << error->message();
    return {};
  }
  return std::get<Rig>(result);
}

TEST(RigParserTest, ErrorsNameTheLineAndTheReason) {
  struct Case {
    std::string text;
    int line;
    std::string reason;
  };
  const Case cases[] = {
      {"id = cam\n", 1, "before the first section"},
      {"\n# nothing\n[gadget]\n", 3, "unknown section 'gadget'"},
      {"[device\n", 1, "bracket"},
      {"[device]\nid cam\n", 2, "neither a [section] nor a key"},
      {"[device]\nid =\n", 2, "'id' has no value"},
      {"[device]\n= cam\n", 2, "no key"},
      {"[device]\ncolour = red\n", 2, "a device has no 'colour'"},
      {"[device]\nid = a\nid = b\n", 3, "'id' is given twice"},
      {"[device]\nname = A\nmedia = video\n", 1, "no id"},
      {"[device]\nid = a\nmedia = video\n", 1, "no name"},
      {"[device]\nid = a\nname = A\n", 1, "no media"},
      {"[device]\nmedia = smell\n", 2, "'smell' is none of"},
      {Camera, 1, "no video format"},
      {Microphone, 1, "no audio format"},
      {Camera + "video format = 640x480\n", 5, "its size and its code"},
      {Camera + "video format = 640by480 2vuy, rates 30\n", 5, "'640by480' is not a size"},
      {Camera + "video format = 640x99999 2vuy, rates 30\n", 5, "not a size"},
      {Camera + "video format = 640x0 2vuy, rates 30\n", 5, "not a size"},
      {Camera + "video format = 640x480 abc, rates 30\n", 5, "four characters"},
      {Camera + "video format = 640x480 2vuy\n", 5, "no rates"},
      {Camera + "video format = 640x480 2vuy, rates fast\n", 5, "'fast' is not a frame rate"},
      {Camera + "video format = 640x480 2vuy, rates 30-15\n", 5, "lower rate"},
      {Camera + "video format = 640x480 2vuy, rates 0\n", 5, "not a frame rate"},
      {Camera + "video format = 640x480 2vuy, rates 30/0\n", 5, "not a frame rate"},
      {Camera + "video format = 640x480 2vuy, rates nan\n", 5, "not a frame rate"},
      {Camera + "video format = 640x480 2vuy, rates 30,\n", 5, "between two commas"},
      {Camera + "video format = 640x480 2vuy, rates 30, name \"x\n", 5, "quotation mark"},
      {Camera + "video format = 640x480 2vuy, rates 30, sideways\n", 5, "unknown: 'sideways'"},
      {Camera + "video format = 0x0 2vuy, rates 30\n", 5, "what it delivers"},
      {Camera + "video format = 1x1 2vuy, rates 1, active\nvideo format = 2x2 2vuy, rates 1, active\n", 6,
       "active already"},
      {Camera + CameraFormat + "sound = tone 440\n", 6, "the device has no sound"},
      {Camera + CameraFormat + "video timescale = -1\n", 6, "not a whole number"},
      {Camera + CameraFormat + "pacing = leisurely\n", 6, "neither real time nor consumer"},
      {Camera + CameraFormat + "plugged in = maybe\n", 6, "neither yes nor no"},
      {Camera + CameraFormat + "pixel aspect = 4:0\n", 6, "not a ratio"},
      {Camera + CameraFormat + "clock drift = 1e9 ppm\n", 6, "not a number from"},
      {Camera + CameraFormat + "video fault = lost frame\n", 6, "what and when"},
      {Camera + CameraFormat + "video fault = lost frame, every 0\n", 6, "not a whole number"},
      {Camera + CameraFormat + "video fault = lost frame, at buffer 3\n", 6, "not a number"},
      {Camera + CameraFormat + "picture = media nowhere.y4m\n", 6, "No such file"},
      {Camera + CameraFormat + "picture = slides\n", 6, "unknown: 'slides'"},
      {Camera + CameraFormat + "firewire unit = 0xZZ\n", 6, "64-bit identifier"},
      {Camera + CameraFormat + "links = cam\n", 6, "not linked to itself"},
      {Camera + CameraFormat + "links = ghost\n", 6, "there is no device 'ghost'"},
      {Camera + CameraFormat + Camera + CameraFormat, 7, "another device has the id 'cam'"},
      {Microphone + "audio format = 48000 Hz, 20-bit integer\n", 5, "no type of samples"},
      {Microphone + "audio format = 10 Hz\n", 5, "not a number from 1000"},
      {Microphone + "audio format = 48000 Hz, 900 channels\n", 5, "not a whole number from 1 to 32"},
      {Microphone + "audio format = 48000 Hz, mono, layout 5.1\n", 5, "not one of 1 channels"},
      {Microphone + "audio format = 48000 Hz\naudio fault = lost frame, every 2\n", 6, "unknown: 'lost frame'"},
      {Microphone + "audio format = 48000 Hz\nsound = tone\n", 6, "has a frequency"},
      {"[script]\nsoon = unplug cam\n", 2, "like: at 5 s"},
      {"[script]\nat 5 s = fix cam\n", 2, "neither plug ID"},
      {"[script]\nat 5 s = plug cam\n", 2, "there is no device 'cam'"},
      {"[firewire bus]\nlist = absent\nunit = 1\n", 3, "has no units"},
      {"[firewire bus]\n[firewire bus]\n", 2, "one bus only"},
  };
  for (const Case& each : cases) {
    const auto result = parseRig(each.text, "desk.rig");

    const auto* error = std::get_if<RigError>(&result);
    ASSERT_NE(error, nullptr) << each.text;
    EXPECT_EQ(error->line, each.line) << each.text;
    EXPECT_THAT(error->message(), HasSubstr("desk.rig:" + std::to_string(each.line) + ": ")) << each.text;
    EXPECT_THAT(error->reason, HasSubstr(each.reason)) << each.text;
  }
}

TEST(RigParserTest, EveryPropertyReachesTheRig) {
  const Rig rig = rigOf(parseRig(
      "\xEF\xBB\xBF# A rig\r\n"
      "[device]\r\n"
      "id = cam\r\n"
      "name = Caméra = 1\r\n"
      "media = video, muxed\r\n"
      "screen capture = yes\r\n"
      "plugged in = no\r\n"
      "video format = 640x480 2vuy, rates 15-30 59.94\r\n"
      "video format = 0x0 mp2t, delivers 720x576, presentation 1024x576, rates 25, name \"PAL, wide\", active\r\n"
      "video format = 32x32 2vuy, rates 5, never delivers\r\n"
      "audio format = 44100 Hz, 8-bit unsigned, mono\r\n"
      "audio format = 48000 Hz, 24-bit integer, 6 channels, big endian, planar, non-mixable, layout 5.1, active\r\n"
      "pixel aspect = 64:45\r\n"
      "video timescale = 600\r\n"
      "audio timescale = 90000\r\n"
      "audio buffer = 1024\r\n"
      "picture = test picture\r\n"
      "sound = tone 997 -1\r\n"
      "pacing = consumer\r\n"
      "clock drift = -50 ppm\r\n"
      "clock jitter = 1.5 ms\r\n"
      "open failure = It is in use.\r\n"
      "configuration failure = It is locked.\r\n"
      "video fault = lost frame, every 10\r\n"
      "video fault = timescale 90000, at 2.5 s\r\n"
      "audio fault = invalid time, at buffer 7\r\n"
      "firewire unit = 0x0080880303480cd1, mpeg\r\n"
      "[firewire bus]\r\n"
      "open status = -536870212\r\n"
      "unit = 12, dv\r\n"
      "[script]\r\n"
      "at 1.5 s = plug cam",
      "desk.rig"));

  ASSERT_EQ(rig.devices.size(), 1u);
  const RigDevice& device = rig.devices[0];
  const DeviceDescription& described = device.description;
  EXPECT_EQ(described.name, "Caméra = 1");
  EXPECT_TRUE(described.hasVideo && described.isMuxed && described.isScreenCapture && !described.hasAudio);
  EXPECT_FALSE(device.isPluggedAtFirst);

  ASSERT_EQ(described.videoFormats.size(), 3u);
  EXPECT_EQ(described.videoFormats[0].mediaSubType, 0x32767579u);
  EXPECT_EQ(described.videoFormats[0].frameRates.size(), 2u);
  EXPECT_EQ(CMTimeCompare(described.videoFormats[0].frameRates[1].minFrameDuration, CMTimeMake(1001, 60000)), 0);
  EXPECT_EQ(described.videoFormats[1].width, 0);
  EXPECT_EQ(device.pictures[1].height, 576);
  EXPECT_EQ(described.videoFormats[1].presentationWidth, 1024);
  EXPECT_EQ(described.videoFormats[1].name, "PAL, wide");
  EXPECT_EQ(described.initialVideoFormat, 1u);
  EXPECT_TRUE(device.pictures[2].neverDelivers && !device.pictures[1].neverDelivers);

  ASSERT_EQ(described.audioFormats.size(), 2u);
  EXPECT_EQ(described.audioFormats[0].layout, AudioChannelLayoutTag{kAudioChannelLayoutTag_Mono});
  EXPECT_EQ(described.audioFormats[0].stream.mFormatFlags, AudioFormatFlags{kAudioFormatFlagIsPacked});
  const AudioStreamBasicDescription& surround = described.audioFormats[1].stream;
  EXPECT_EQ(surround.mFormatFlags,
            AudioFormatFlags{kAudioFormatFlagIsPacked | kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian |
                             kAudioFormatFlagIsNonInterleaved | kAudioFormatFlagIsNonMixable});
  EXPECT_EQ(surround.mBytesPerFrame, 3u);
  EXPECT_EQ(surround.mChannelsPerFrame, 6u);
  EXPECT_EQ(described.initialAudioFormat, 1u);

  EXPECT_EQ(described.pixelAspectRatio->horizontal, 64);
  EXPECT_EQ(device.videoTimescale, 600);
  EXPECT_EQ(device.audioTimescale, 90000);
  EXPECT_EQ(device.audioBufferLength, 1024u);
  EXPECT_EQ(std::get<ToneSource>(device.sound).levelInDecibels, -1);
  EXPECT_EQ(device.pacing, Pacing::consumer);
  EXPECT_EQ(device.driftInPartsPerMillion, -50);
  EXPECT_EQ(device.jitterInSeconds, 0.0015);
  EXPECT_EQ(device.openFailure, "It is in use.");
  EXPECT_EQ(device.configurationFailure, "It is locked.");
  ASSERT_EQ(device.videoFaults.size(), 2u);
  EXPECT_EQ(device.videoFaults[0].samples, 10u);
  EXPECT_EQ(device.videoFaults[1].seconds, 2.5);
  EXPECT_EQ(device.audioFaults.at(0).samples, 7u);
  EXPECT_EQ(device.fireWireUnit->guid, 0x0080880303480cd1u);
  EXPECT_TRUE(device.fireWireUnit->isMPEG && !device.fireWireUnit->isDV);
  EXPECT_EQ(rig.bus.openStatus, -536870212);
  EXPECT_EQ(rig.bus.units->at(0).guid, 12u);
  EXPECT_EQ(rig.script.at(0).seconds, 1.5);
}

TEST(RigParserTest, RatesAreExactFractions) {
  struct Case {
    const char* text;
    std::int64_t value;
    std::int32_t timescale;
  };
  const Case cases[] = {
      {"30", 1, 30},
      {"29.97", 1001, 30000},
      {"23.976", 1001, 24000},
      {"23.98", 1001, 24000},
      {"59.94", 1001, 60000},
      {"119.88", 1001, 120000},
      {"30000/1001", 1001, 30000},
      {"12.5", 2, 25},
      {"14.985", 1001, 15000},
      {"50/2", 1, 25},
      {"0.5", 2, 1},
      {"7.5", 2, 15},
  };
  for (const Case& each : cases) {
    const auto duration = parseFrameRate(each.text);

    ASSERT_TRUE(duration) << each.text;
    EXPECT_EQ(duration->value, each.value) << each.text;
    EXPECT_EQ(duration->timescale, each.timescale) << each.text;
  }
}

TEST(RigParserTest, ALinkSaidOnOneSideHoldsOnBoth) {
  const Rig rig =
      rigOf(parseRig(Camera + CameraFormat + "links = mic\n" + Microphone + "audio format = 48000 Hz\n", "desk.rig"));

  EXPECT_THAT(rig.devices.at(0).description.linkedDevices, ElementsAre("mic"));
  EXPECT_THAT(rig.devices.at(1).description.linkedDevices, ElementsAre("cam"));
}

TEST(RigParserTest, ADeviceWithoutFormatsTakesThoseOfItsClips) {
  MediaFolder folder;
  folder.write("clip, one.y4m", "YUV4MPEG2 W4 H2 F30000:1001 A8:9 C422\nFRAME\n" + std::string(16, 'x'));
  folder.write("clip.wav", waveFile(chunk("fmt ", waveFormat(1, 1, 22050, 16)) + chunk("data", "abcd")));
  const std::string rigFile = folder.write("desk.rig",
                                           "[device]\nid = deck\nname = Deck\nmedia = muxed\n"
                                           "picture = media \"clip, one.y4m\", once\nsound = media clip.wav\n");

  const Rig rig = rigOf(loadRig(rigFile));

  const DeviceDescription& described = rig.devices.at(0).description;
  ASSERT_EQ(described.videoFormats.size(), 1u);
  EXPECT_EQ(described.videoFormats[0].width, 4);
  EXPECT_EQ(CMTimeCompare(described.videoFormats[0].frameRates.at(0).minFrameDuration, CMTimeMake(1001, 30000)), 0);
  EXPECT_EQ(described.pixelAspectRatio->vertical, 9);
  ASSERT_EQ(described.audioFormats.size(), 1u);
  EXPECT_EQ(described.audioFormats[0].stream.mSampleRate, 22050);
  EXPECT_FALSE(std::get<MediaSource>(rig.devices.at(0).picture).isLooped);
}

TEST(RigParserTest, AClipThatDoesNotFitItsFormatsIsAnErrorOfItsLine) {
  MediaFolder folder;
  folder.write("clip.y4m", smallClip(1));
  folder.write("clip.wav", waveFile(chunk("fmt ", waveFormat(1, 1, 22050, 16)) + chunk("data", "abcd")));

  const auto picture = parseRig(Camera + "picture = media clip.y4m\n" + CameraFormat, folder.pathOf("desk.rig"));
  const auto sound =
      parseRig(Microphone + "audio format = 48000 Hz\nsound = media clip.wav\n", folder.pathOf("desk.rig"));

  EXPECT_EQ(std::get<RigError>(picture).line, 5);
  EXPECT_THAT(std::get<RigError>(picture).reason, HasSubstr("4x2 is not the format's 640x480"));
  EXPECT_EQ(std::get<RigError>(sound).line, 6);
}

TEST(RigParserTest, TheDemoRigsCamcorderIsFoundOnTheBusByItsID) {
  const Rig rig = rigOf(parseRig(demoRigText(), "demo rig"));

  const auto camcorder = std::find_if(rig.devices.begin(), rig.devices.end(),
                                      [](const RigDevice& device) { return device.fireWireUnit.has_value(); });
  ASSERT_NE(camcorder, rig.devices.end());
  const auto guid = parseGUID(std::string_view(camcorder->description.uniqueID).substr(1));
  ASSERT_TRUE(guid);
  EXPECT_EQ(*guid, camcorder->fireWireUnit->guid);
}

TEST(RigParserTest, FilesThatAreNoRigAreRefusedByName) {
  MediaFolder folder;

  for (const std::string& path : {folder.pathOf("missing.rig"), folder.pathOf("")}) {
    EXPECT_THAT(std::get<RigError>(loadRig(path)).message(), HasSubstr(path + ": "));
  }
}

}  // namespace
}  // namespace hardware::simulated

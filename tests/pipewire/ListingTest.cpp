#include <gmock/gmock.h>

#include "PipeWireTest.h"

// Which sources a host has: what is plugged in, who belongs to whom, and who is who after a replug.

namespace test::pipewire {
namespace {

using testing::HasSubstr;

class ListingTest : public PipeWireTest {};

/// What a session manager says of a part of a USB device.
Properties onPort(const std::string& port, const std::string& interface) {
  return {{PW_KEY_DEVICE_BUS_PATH, "pci-0000:00:14.0-usb-0:" + port + ":1." + interface}};
}

TEST_F(ListingTest, SourcesAreWhatIsPluggedInAndGoTogether) {
  Properties hardware = onPort("2", "0");
  hardware.insert({{"factory.name", "api.v4l2.device"}, {"api.v4l2.path", "/dev/webcam"}});
  server.setWebcam("mute");  // the server would make a node of what takes pictures
  const ServerObject device("spa-device-factory", hardware);
  const Microphone microphone(
      {.name = "alsa_input.usb-cam", .description = "Cam Mono", .properties = onPort("2", "2")});
  const Camera camera(
      {.name = "v4l2_input.cam", .description = "Cam (V4L2)", .properties = {{PW_KEY_DEVICE_ID, device.id()}}});
  const Microphone stranger({.name = "alsa_input.usb-desk", .description = "Desk", .properties = onPort("3", "0")});
  const Microphone headset(
      {.name = "bluez_input.00_11", .description = "Headset", .properties = {{"device.api", "bluez5"}}});
  const ServerObject tellsFormatsOnItsPort("spa-node-factory", {{"factory.name", "videotestsrc"},
                                                                {PW_KEY_NODE_NAME, "test"},
                                                                {PW_KEY_NODE_DESCRIPTION, "Test"},
                                                                {PW_KEY_MEDIA_CLASS, "Video/Source"}});
  Camera tellsThemLater({.name = "late", .description = "Late", .pictures = {}});
  Host host;
  ASSERT_TRUE(hasSources(host, {"Cam Video", "Desk Audio", "Headset Audio", "Test Video"}));
  for (const auto& source : host.sources()) EXPECT_EQ(host.has(source, "ProvidesAudio"), source != "Test Video");

  tellsThemLater.offer({{}});
  EXPECT_TRUE(hasSources(host, {"Cam Video", "Desk Audio", "Headset Audio", "Test Video", "Late Video"}));
  tellsThemLater.pull();
  EXPECT_TRUE(hasSources(host, {"Cam Video", "Desk Audio", "Headset Audio", "Test Video"}));
}

TEST_F(ListingTest, TwinsKeepTheirIDsOverReplugsAndRestarts) {
  Host host;
  const auto twin = [](const char* port) {
    return CameraSettings{.name = "v4l2_input.usb", .description = "Twin", .properties = onPort(port, "0")};
  };
  Camera left(twin("1")), right(twin("2.4"));
  ASSERT_TRUE(hasSources(host, {"Twin Video", "Twin 1 Video"}));
  right.pull();
  ASSERT_TRUE(until([&] { return host.sources().size() == 1; }));
  const std::string leftID = host.deviceId(host.sources()[0]);

  left.pull();
  ASSERT_TRUE(hasSources(host, {}));
  right.plug();
  ASSERT_TRUE(until([&] { return host.sources().size() == 1; }));
  const std::string rightID = host.deviceId(host.sources()[0]);
  EXPECT_NE(leftID, rightID);

  right.pull();
  server.kill();
  server.start();
  left.plug();
  ASSERT_TRUE(until([&] { return host.sources().size() == 1 && host.deviceId(host.sources()[0]) == leftID; }));
}

TEST_F(ListingTest, TheListNamesWhatItCannotOfferAndWhereDevicesComeFrom) {
  const Camera camera, h264({.name = "doorbell", .description = "Doorbell", .pictures = {{H264}}}),
      refused({.name = "card", .description = "Intensity Pro"});
  const std::string list = outputOfHost("list");
  for (const char* text : {"PipeWire", "Camera Video  (video)", "Doorbell", "H.264", "Intensity Pro"})
    EXPECT_THAT(list, HasSubstr(text));

  server.freeze();
  EXPECT_THAT(outputOfHost("list"),
              HasSubstr("PipeWire does not answer: this program may not use it. CAPTURE_RIG=demo"));
  server.kill();
  EXPECT_THAT(outputOfHost("list"), HasSubstr("No PipeWire server is running. CAPTURE_RIG=demo (brvhost --rig demo)"));
}

TEST_F(ListingTest, TheDoctorAsksTheServerItself) {
  const Camera camera({.pictures = {{}, {H264, 1600, 1200}}});
  const Microphone microphone({.name = "mic", .description = "Mic"});
  Host host;
  ASSERT_TRUE(hasSources(host, {"Camera Video", "Mic Audio"}));
  const VideoTake take(host, "Camera Video");
  ASSERT_TRUE(take.waitForMore(1));

  const std::string said = outputOfHost("doctor");
  for (const char* text : {"server  PipeWire ", "session manager  WirePlumber", "server has  YUY2: ",
                           "h264: 1600 x 1200", "differs     the server has 1600 x 1200, ", "in use by   ", " Hz, "})
    EXPECT_THAT(said, HasSubstr(text));
  server.kill();
  EXPECT_THAT(outputOfHost("doctor"), HasSubstr("advice  no PipeWire server can be reached"));
}

}  // namespace
}  // namespace test::pipewire

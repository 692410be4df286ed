// Who is who among PipeWire's devices, and what belongs together.

#include <gmock/gmock.h>

#include <cstring>
#include <string>

#include "Pods.h"
#include "listing/Catalog.h"
#include "listing/Identity.h"

namespace hardware::pipewire {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Source source(Source::Kind kind, std::string serial, Properties properties) {
  Source made;
  made.kind = kind;
  made.serial = std::move(serial);
  made.properties = std::move(properties);
  return made;
}
Source camera(std::string serial, Properties properties) {
  return source(Source::Kind::camera, std::move(serial), std::move(properties));
}
Source microphone(std::string serial, Properties properties) {
  return source(Source::Kind::microphone, std::move(serial), std::move(properties));
}

TEST(IdentityTest, AnIDDependsOnWhereADeviceIsAndNotOnWhatElseIsThere) {
  const struct {
    Properties properties;
    std::string id;
  } cases[] = {
      {{{"node.name", "v4l2_input.pci-0000_00_14.0-usb-0_2_1.0"}, {"device.bus-path", "pci-0000:00:14.0-usb-0:2:1.0"}},
       "v4l2_input.pci-0000_00_14.0-usb-0_2_1.0"},
      // The session manager's number for the second of a name is chance; that of a PCI function is none.
      {{{"node.name", "v4l2_input.pci-0000_00_14.0-usb-0_2_1.0.2"},
        {"device.bus-path", "pci-0000:00:14.0-usb-0:2:1.0"}},
       "v4l2_input.pci-0000_00_14.0-usb-0_2_1.0"},
      {{{"node.name", "alsa_input.pci-0000_00_1f.3.analog-stereo"}, {"device.bus-path", "pci-0000:00:1f.3"}},
       "alsa_input.pci-0000_00_1f.3.analog-stereo"},
      {{{"node.name", "alsa_input.usb-Acme_Mic-00.2.mono"},
        {"device.name", "alsa_card.usb-Acme_Mic-00.2"},
        {"device.bus-path", "pci-0000:00:14.0-usb-0:3:1.0"}},
       "alsa_input.usb-Acme_Mic-00.mono@pci-0000:00:14.0-usb-0:3:1.0"},
      {{{"node.name", "cam"}, {"device.serial", "42"}}, "cam@42"},
      {{{"node.name", "obs"}}, "obs"}};
  for (const auto& [properties, id] : cases)
    EXPECT_THAT(uniqueIDs(std::vector{camera("1", properties)}), ElementsAre(id));
}

TEST(IdentityTest, InputsOfOneCardAreNumberedAsTheKernelNumbersThemAndKeepTheirIDs) {
  const auto input = [](std::string serial, std::string file) {
    return camera(std::move(serial), {{"node.name", "v4l2_input.pci-0000_05_00.0" + (file == "9" ? "" : "." + file)},
                                      {"device.bus-path", "pci-0000:05:00.0"},
                                      {"api.v4l2.path", "/dev/video" + file}});
  };
  std::vector<Source> inputs{input("7", "11"), input("8", "9"), input("9", "10")};
  const std::string id = "v4l2_input.pci-0000_05_00.0";
  EXPECT_THAT(uniqueIDs(inputs), ElementsAre(id + "#3", id, id + "#2"));

  inputs[0].knownID = id;
  EXPECT_THAT(uniqueIDs(inputs), ElementsAre(id, id + "#2", id + "#3"));
}

TEST(IdentityTest, AHousingIsAUSBDeviceOrACardHoweverTheServerTellsWhere) {
  const struct {
    Properties properties;
    std::string housing;
  } cases[] = {
      {{{"device.bus-path", "pci-0000:00:14.0-usb-0:2.1:1.0"}}, "usb 0000:00:14.0 2.1"},
      {{{"device.bus-path", "pci-0000:00:14.0-usbv2-0:2.1:1.3"}}, "usb 0000:00:14.0 2.1"},
      {{{"device.sysfs.path", "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2.1/1-2.1:1.0/video4linux/video0"}},
       "usb 0000:00:14.0 1-2.1"},
      // Another device: the port's other bus.
      {{{"device.bus-path", "pci-0000:00:14.0-usb-0:2.1:1.0"},
        {"device.sysfs.path", "/sys/devices/pci0000:00/0000:00:14.0/usb2/2-2/2-2.1/2-2.1:1.0/sound/card1"}},
       "usb 0000:00:14.0 2-2.1"},
      {{{"device.sysfs.path", "/devices/pci0000:00/0000:00:14.0/usb1/1-4/1-4:1.2/sound/card1"}},
       "usb 0000:00:14.0 1-4"},
      {{{"device.bus-path", "pci-0000:05:00.1"}}, "pci 0000:05:00"},
      {{{"device.sysfs.path", "/sys/devices/pci0000:00/0000:05:00.0/video4linux/video3"}}, "pci 0000:05:00"},
      {{{"device.id", "47"}}, "device 47"},
      {{{"device.bus-path", "pci-0000:00:14.0-usb-0:2.1:1.0"}, {"device.bus", "bluetooth"}}, ""},
      {{}, ""}};
  for (const auto& [properties, housing] : cases) EXPECT_EQ(housingOf(properties), housing);
}

TEST(IdentityTest, SoundAndPicturesOfAHousingGoTogether) {
  const auto at = [](std::string name, std::string path) {
    return Properties{{"node.name", std::move(name)}, {"device.bus-path", std::move(path)}};
  };
  const std::vector<Source> sources{camera("1", at("colour", "pci-0000:00:14.0-usb-0:2:1.0")),
                                    camera("2", at("infrared", "pci-0000:00:14.0-usb-0:2:1.2")),
                                    microphone("3", at("webcam", "pci-0000:00:14.0-usb-0:2:1.4")),
                                    camera("4", at("card1", "pci-0000:05:00.0")),
                                    camera("5", at("card2", "pci-0000:05:00.0")),
                                    microphone("6", at("sound2", "pci-0000:05:00.1")),
                                    microphone("7", at("sound1", "pci-0000:05:00.1")),
                                    microphone("8", at("desk", "pci-0000:00:14.0-usb-0:3:1.0"))};
  const std::vector<std::string> ids{"colour", "infrared", "webcam", "card1", "card2", "sound2", "sound1", "desk"};

  EXPECT_THAT(
      linksOf(sources, ids),
      ElementsAre(ElementsAre("webcam"), ElementsAre("webcam"), ElementsAre("colour", "infrared"),
                  ElementsAre("sound1"), ElementsAre("sound2"), ElementsAre("card2"), ElementsAre("card1"), IsEmpty()));
}

TEST(IdentityTest, ACameraThatIsOfferedTwiceIsListedOnceAndOneThatCannotBeReadSaysWhy) {
  pods::Offers readable, encoded;
  readable.addPictures(SPA_MEDIA_SUBTYPE_mjpg, {}, {640, 480}, {{30, 1}});
  encoded.addPictures(SPA_MEDIA_SUBTYPE_h264, {}, {640, 480}, {{30, 1}});
  const auto withOffer = [](Source made, const pods::Offers& offers) {
    for (const spa_pod* offered : offers.pods()) {
      Pod pod;
      pod.words.resize((SPA_POD_SIZE(offered) + 7) / 8);
      std::memcpy(pod.words.data(), offered, SPA_POD_SIZE(offered));
      made.formats.push_back(std::move(pod));
    }
    return made;
  };
  const Properties v4l2{{"node.description", "Webcam (V4L2)"},
                        {"node.name", "v4l2"},
                        {"device.api", "v4l2"},
                        {"device.bus-path", "pci-0000:00:14.0-usb-0:4:1.0"},
                        {"device.vendor.id", "0x0408"},
                        {"device.product.id", "0x5365"}};
  const Properties same{{"node.description", "Built-in Camera"},
                        {"node.name", "same"},
                        {"device.api", "libcamera"},
                        {"api.libcamera.path", R"(\_SB_.PCI0.XHC0.RHUB.PRT4-4:1.0-0408:5365)"}};
  Properties other = same;
  other["node.name"] = "other";
  other["api.libcamera.path"] = R"(\_SB_.PCI0.XHC0.RHUB.PRT5-5:1.0-0408:5365)";

  const Catalog catalog =
      catalogOf(std::vector{withOffer(camera("1", v4l2), readable), withOffer(camera("2", same), readable),
                            withOffer(camera("3", other), readable),
                            withOffer(camera("4", {{"node.nick", "Doorbell"}, {"node.name", "d"}}), encoded),
                            microphone("5", {{"node.name", "Silent"}})});

  ASSERT_EQ(catalog.devices.size(), 2U);
  EXPECT_EQ(catalog.devices[0].description.name, "Webcam");
  EXPECT_EQ(catalog.devices[1].description.uniqueID, "other");
  ASSERT_EQ(catalog.unoffered.size(), 2U);
  EXPECT_EQ(catalog.unoffered[0].name + ": " + catalog.unoffered[0].reason, "Doorbell: it offers only H.264");
  EXPECT_EQ(catalog.unoffered[1].name + ": " + catalog.unoffered[1].reason, "Silent: PipeWire tells no format of it");
}

}  // namespace
}  // namespace hardware::pipewire

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "SourceTest.h"
#include "support/Gate.h"
#include "support/LogCapture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DetectionTest : public SourceTest {
 protected:
  /// "NAME: VIDEO ID, AUDIO ID" for each source.
  std::vector<std::string> sources() const {
    std::vector<std::string> found;
    for (int i = 0; i < manager->getDeviceCount(); ++i) {
      const AV::Device& source = *manager->getDeviceWithIndex(i);
      found.push_back(source.getDeviceName() + ": " + source.getVideoDeviceID() + ", " + source.getAudioDeviceID());
    }
    return found;
  }

  LogCapture log;
};

TEST_F(DetectionTest, DevicesBecomeSourcesAndLinkedOnesJoin) {
  using fake::camcorder, fake::camera, fake::microphone;
  const struct {
    const char* what;
    Devices devices;  ///< the last of which comes later
    std::vector<std::string> sources;
  } cases[] = {
      {"cameras come first and names are unique",
       {microphone("Mic", "m"), camera("Cam", "c1"), camera("Cam", "c2"), camera("Cam", "c3"), camcorder("Deck", "d1"),
        camcorder("Deck", "d2"), nullptr},
       {"Cam Video: c1, ", "Cam 1 Video: c2, ", "Cam 2 Video: c3, ", "Deck: d1, d1", "Deck 1: d2, d2",
        "Mic Audio: , m"}},
      {"a second linked microphone is refused",
       {camera("Cam", "c", {"m1", "m2"}), microphone("One", "m1", {"c"}), microphone("Two", "m2", {"c"}), nullptr},
       {"Cam Video: c, m1"}},
      {"so is a second linked camera",
       {camera("Cam", "c1", {"m"}), microphone("Mic", "m", {"c1", "c2"}), camera("Cam", "c2", {"m"})},
       {"Cam Video: c1, m"}},
      {"a microphone is heard with every camera that it is linked to",
       {camera("Cam", "c1", {"m"}), camera("Cam", "c2", {"m"}), microphone("Mic", "m", {"c1", "c2"})},
       {"Cam Video: c1, m", "Cam 1 Video: c2, m"}},
      {"and by itself where one of those has no source",
       {camera("Cam", "c", {"m"}), camera("Intensity Pro", "i", {"m"}), microphone("Mic", "m", {"m", "i", "c"})},
       {"Cam Video: c, m", "Mic Audio: , m"}},
      {"links to what has not the other medium make no source",
       {camera("Cam", "c1", {"c2"}), microphone("Mic", "m1", {"m2"}), camera("Cam", "c2"), microphone("Mic", "m2"),
        nullptr},
       {"Cam Video: c2, ", "Mic Audio: , m2"}},
      {"nor does a link to a camcorder",
       {camcorder("Deck", "d", {"m"}), microphone("Mic", "m", {"d"}), nullptr},
       {"Deck: d, d"}},
      {"other plug-ins' devices are left to them",
       {camera("UltraStudio Decklink 4K", "1"), camera("Blackmagic Design", "2"), camera("Intensity Pro", "3"),
        camera("Brevanta Virtual Camera", "4"), camera("AJA Io 4K", "5"), microphone("Brevanta Microphone", "6"),
        camera("AJAX Camera", "a"), camera("blackmagic", "b"), nullptr},
       {"AJAX Camera Video: a, ", "blackmagic Video: b, "}},
  };
  for (const auto& each : cases) {
    detect({each.devices.begin(), each.devices.end() - 1});
    if (each.devices.back()) provider->plug(each.devices.back());
    EXPECT_EQ(sources(), each.sources) << each.what;
    manager->detectDeviceConnect();
    EXPECT_EQ(sources(), each.sources) << "in another pass: " << each.what;
  }
  const std::string refusals[] = {"3 Already has an Audio Device Associated with it!\n",
                                  "3 Already has a Video Device Associated with it!\n"};
  EXPECT_EQ(manager->unofferedDevices().size(), 6U);
  EXPECT_THAT(log.lines(), ElementsAre(refusals[0], refusals[0], refusals[1], refusals[1])) << "once in each pass";
}

TEST_F(DetectionTest, TheManagerSpeaksForAllOfItsSources) {
  detect({fake::camera("Cam", "c", {"m"}), fake::microphone("Mic", "m", {"c"}), fake::microphone("Other", "o")});
  EXPECT_FALSE(manager->hasDeviceRunning());
  manager->startAllDevices();
  source(0).stopDevice();
  EXPECT_TRUE(manager->hasDeviceRunning());
  manager->stopAllDevices();
  EXPECT_FALSE(manager->hasDeviceRunning());
  for (const auto& [id, index] : {std::pair("c", 0), {"m", 0}, {"o", 1}, {"x", -1}})
    EXPECT_EQ(manager->getIndexOfDeviceID(id), index) << id;

  manager->PrintDeviceList();
  EXPECT_THAT(log.lines(),
              ElementsAre("2 ---------------    Begin Print Device List    ---------------\n",
                          "4 \tCam Video (AudioID=m, VideoID=c)\n", "4 \tOther Audio (AudioID=o, VideoID=)\n",
                          "2 ---------------    End Print Device List    ---------------\n"));
}

TEST_F(DetectionTest, LinkedDevicesMeetInEitherOrderAndTheHostHearsOfEveryChangeOnce) {
  const auto camera = fake::camera("Cam", "c", {"m"}), microphone = fake::microphone("Mic", "m", {"c"});
  std::vector<int> states;
  for (const auto& [first, second] : {std::pair(camera, microphone), std::pair(microphone, camera)}) {
    detect({fake::camera("Brevanta Virtual Camera", "refused")});
    manager->setStateChangeCallback(
        [](void* context, int state) { static_cast<std::vector<int>*>(context)->push_back(state); }, &states);
    provider->plug(first);
    provider->plug(second);
    EXPECT_THAT(sources(), ElementsAre(first == camera ? "Cam Video: c, m" : "Mic Audio: c, m"));
    provider->unplug(second);
    EXPECT_EQ(manager->getDeviceCount(), 1) << "one side is enough to stay";
    provider->unplug(first);
    EXPECT_THAT(sources(), IsEmpty());
    constexpr int Came = BRV_DEVICE_STATE_ATTACHED, Left = BRV_DEVICE_STATE_REMOVED;
    EXPECT_THAT(std::exchange(states, {}), ElementsAre(Came, Came, Left, Left));
  }
}

TEST_F(DetectionTest, ADeviceThatCannotBeOpenedIsLoggedOnceAPassAndTriedAgain) {
  using fake::camera, fake::microphone;
  auto both = camera("Broken", "b");
  both->described.isMuxed = true;
  const char* const video = "4 Error Loading Video Source Broken: Someone else has it.\n";
  const char* const audio = "4 Error Loading Audio Source Broken: Someone else has it.\n";
  const struct {
    Devices devices;  ///< of which the first cannot be opened for a time
    std::vector<std::string> without, with;
    const char* line;
  } cases[] = {
      {{both}, {}, {"Broken Video: b, b"}, video},
      {{microphone("Broken", "m", {"c"}), camera("Cam", "c", {"m"})}, {"Cam Video: c, "}, {"Cam Video: c, m"}, audio},
      {{camera("Broken", "c", {"m"}), microphone("Mic", "m", {"c"})}, {"Mic Audio: , m"}, {"Mic Audio: c, m"}, video},
  };
  std::vector<std::string> lines;
  for (const auto& each : cases) {
    each.devices.front()->openError = "Someone else has it.";
    detect(each.devices);
    manager->detectDeviceConnect();
    EXPECT_EQ(sources(), each.without);
    EXPECT_EQ(manager->getLastErrorMessage(), "Someone else has it.");
    EXPECT_EQ(manager->unofferedDevices().back().reason, "Someone else has it.");
    lines.insert(lines.end(), 2, each.line);
    EXPECT_EQ(log.lines(), lines);

    each.devices.front()->openError.reset();
    manager->detectDeviceConnect();
    EXPECT_EQ(sources(), each.with);
    EXPECT_THAT(manager->unofferedDevices(), IsEmpty());
  }
}

TEST_F(DetectionTest, ChangesNoticedElsewhereWaitForTheMainThread) {
  auto first = fake::camera("Cam", "c1"), second = fake::camera("Cam", "c2");
  detect({first, second, fake::camera("Cam", "c3")});

  std::thread([&] {
    for (const auto& leaving : {first, second}) provider->unplug(leaving);
    for (const char* id : {"c4", "c5"}) provider->plug(fake::camera("Cam", id));
  }).join();
  EXPECT_EQ(source().getVideoDeviceID(), "c1");
  runMainLoopUntilIdle();

  EXPECT_THAT(sources(), ElementsAre("Cam 2 Video: c3, ", "Cam Video: c4, ", "Cam 1 Video: c5, "));
}

TEST_F(DetectionTest, AnotherDeviceUnderTheSameIdIsAnotherSource) {
  const struct {
    Devices former;
    std::shared_ptr<fake::Device> next;
    std::vector<std::string> sources;
  } cases[] = {
      {{fake::camera("Cam", "c")}, fake::camera("Other", "c"), {"Other Video: c, "}},
      {{fake::camera("Cam", "c", {"m"}), fake::microphone("Mic", "m", {"c"})},
       fake::camera("Cam", "c", {"m"}),
       {"Cam Video: c, m"}},
  };
  for (const auto& each : cases) {
    each.next->described.videoFormats.push_back(fake::videoFormat(128, 96));
    for (const auto& [passBetween, first] : {std::pair(false, false), {true, false}, {false, true}}) {
      const bool hasPassBetween = passBetween, comesFirst = first;
      detect(each.former);
      const auto former = manager->getDeviceWithIndex(0);
      const auto& leaving = each.former.front();
      std::thread([&] {
        if (comesFirst) provider->plug(each.next);
        provider->unplug(leaving);
      }).join();
      if (hasPassBetween) runMainLoopUntilIdle();
      if (!comesFirst) std::thread([&] { provider->plug(each.next); }).join();
      runMainLoopUntilIdle();

      EXPECT_EQ(sources(), each.sources);
      EXPECT_NE(manager->getDeviceWithIndex(0), former);
      EXPECT_EQ(source().supportedVideoFormatListCount(), 2);
    }
  }
}

TEST_F(DetectionTest, TheHostMayEndTheLibraryWhenItHearsOfAChange) {
  detect({});
  manager->setStateChangeCallback([](void* test, int) { static_cast<DetectionTest*>(test)->end(); }, this);

  provider->plug(fake::camera("Cam", "c"));

  EXPECT_EQ(manager, nullptr);
}

TEST_F(DetectionTest, AReplacedStateCallbackIsNotRunningAnyMore) {
  struct Slow {
    Gate gate;
    std::atomic<bool> hasLeft{false};
  } slow;
  detect({});
  const auto pass = [](void* context, int) {
    static_cast<Slow*>(context)->gate.pass();
    static_cast<Slow*>(context)->hasLeft = true;
  };
  manager->setStateChangeCallback(pass, &slow);
  const std::jthread host([&] {
    slow.gate.waitUntilEntered();
    const std::jthread releasing([&] { slow.gate.open(); });
    manager->setStateChangeCallback(nullptr, nullptr);
    EXPECT_TRUE(slow.hasLeft);
  });

  provider->plug(fake::camera("Cam", "c"));
}

TEST_F(DetectionTest, FireWireCamcordersAreMarkedByTheirUnits) {
  provider = fake::install({fake::camcorder("HDV", "#08004601024a6c51"), fake::camcorder("HDV", " 0x08004601024A6C51"),
                            fake::camcorder("HDV", "\u00e908004601024a6c51"), fake::camcorder("DV", "#11"),
                            fake::camcorder("Both", "#12"), fake::camcorder("Later is DV", "#13"),
                            fake::camcorder("Unknown", "#22"), fake::camcorder("Long", "#108004601024a6c51"),
                            fake::camera("Short", "")});
  using Units = std::vector<hardware::FireWireUnit>;
  const Units units{{0x08004601024a6c51, false, true},
                    {0x11, true, false},
                    {0x12, true, true},
                    {0x13, false, true},
                    {0x13, true, false},
                    {0, true, true}};
  constexpr int NoMemory = static_cast<int>(0xE00002BD);

  for (const int status : {0, NoMemory}) {
    provider->bus = {status, units};
    end();
    manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
    for (int i = 0; i < manager->getDeviceCount(); ++i) {
      const std::string& name = source(i).getDeviceName();
      EXPECT_EQ(source(i).isHDV(), status == 0 && name.starts_with("HDV")) << name;
    }
  }
  provider->bus = {0, units};
  AV::AVCDeviceManager registry;
  zList<const AVS::AVCDevice*> listed;
  for (int i = 0; i < 2; ++i) registry.filleDeviceList(listed);
  std::vector<std::uint64_t> guids, hdv;
  for (const auto* unit : listed) {
    guids.push_back(unit->guid);
    if (registry.isDeviceHDV(unit->guid)) hdv.push_back(unit->guid);
  }
  constexpr std::uint64_t Hdv = 0x08004601024a6c51;
  EXPECT_THAT(guids, ElementsAre(0, 0x11, 0x12, 0x13, Hdv, 0, 0x11, 0x12, 0x13, Hdv));
  EXPECT_THAT(hdv, ElementsAre(Hdv, Hdv));
  EXPECT_FALSE(registry.isDeviceHDV(1));
  EXPECT_THAT(log.lines(),
              ElementsAre("3 bvDeviceManager_avs::init_controller() - couldnt create controller 0xe00002bd"));
}

}  // namespace

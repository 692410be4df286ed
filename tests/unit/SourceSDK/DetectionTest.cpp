#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "SourceTest.h"
#include "support/Gate.h"
#include "support/LogCapture.h"

namespace {

using testing::ElementsAre;

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

TEST_F(DetectionTest, TheUnitsOfTheBusAreListedAnewAndNoneWhereItCannotBeOpened) {
  constexpr std::uint64_t Hdv = 0x08004601024a6c51;
  provider = fake::install({});
  provider->bus = {
      0, std::vector<hardware::FireWireUnit>{
             {Hdv, false, true}, {0x12, true, true}, {0x13, false, true}, {0x13, true, false}, {0, true, true}}};
  AV::AVCDeviceManager registry;
  zList<const AVS::AVCDevice*> listed;
  for (int i = 0; i < 2; ++i) registry.filleDeviceList(listed);
  std::vector<std::uint64_t> guids, hdv;
  for (const auto* unit : listed) {
    guids.push_back(unit->guid);
    if (registry.isDeviceHDV(unit->guid)) hdv.push_back(unit->guid);
  }
  EXPECT_THAT(guids, ElementsAre(0, 0x12, 0x13, Hdv, 0, 0x12, 0x13, Hdv));
  EXPECT_THAT(hdv, ElementsAre(Hdv, Hdv));
  EXPECT_FALSE(registry.isDeviceHDV(1));

  provider->bus.openStatus = static_cast<int>(0xE00002BD);
  AV::AVCDeviceManager without;
  EXPECT_THAT(log.lines(),
              ElementsAre("3 bvDeviceManager_avs::init_controller() - couldnt create controller 0xe00002bd"));
}

}  // namespace

#include <CoreMediaIO/CMIOHardware.h>
#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <thread>

#include "SourceTest.h"
#include "support/Gate.h"
#include "support/LogCapture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DetectionTest : public SourceTest {
 protected:
  void begin(std::vector<std::shared_ptr<fake::Device>> devices) {
    SourceTest::begin(std::move(devices));
    manager->setStateChangeCallback(
        [](void* context, int state) { static_cast<DetectionTest*>(context)->states.push_back(state); }, this);
  }
  void detect(std::vector<std::shared_ptr<fake::Device>> devices) {
    begin(std::move(devices));
    manager->detectDeviceConnect();
  }

  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (int i = 0; i < manager->getDeviceCount(); ++i)
      found.push_back(manager->getDeviceWithIndex(i)->getDeviceName());
    return found;
  }
  AV::Device& source(const std::string& name) { return *manager->getDeviceWithName(name); }

  LogCapture log;
  std::vector<int> states;
};

TEST_F(DetectionTest, CamerasComeFirstAndNamesAreUnique) {
  detect({fake::microphone("Mic", "m1"), fake::camera("Cam", "c1"), fake::camera("Cam", "c2"),
          fake::camera("Cam", "c3"), fake::camcorder("Deck", "d1"), fake::camcorder("Deck", "d2")});

  EXPECT_THAT(names(), ElementsAre("Cam Video", "Cam 1 Video", "Cam 2 Video", "Deck", "Deck 1", "Mic Audio"));
  EXPECT_EQ(manager->getIndexOfDeviceWithName("Cam 2 Video"), 2);
  EXPECT_EQ(manager->getIndexOfDeviceID("m1"), 5);
  EXPECT_EQ(manager->getDeviceWithIndex(-1), nullptr);
  EXPECT_EQ(manager->getDeviceWithIndex(6), nullptr);
  EXPECT_EQ(manager->getIndexOfDeviceWithName("cam video"), -1);
  EXPECT_EQ(source("Deck").getAudioDeviceID(), "d1");

  manager->detectDeviceConnect();
  EXPECT_EQ(manager->getDeviceCount(), 6) << "another pass adds nothing";
  EXPECT_THAT(states, IsEmpty());
}

TEST_F(DetectionTest, NamesOfOtherPlugInsDevicesAreRefused) {
  begin({});
  for (const char* refused :
       {"UltraStudio Decklink 4K", "Blackmagic Design", "Intensity Pro", "Brevanta Virtual Camera", "AJA Io 4K"}) {
    EXPECT_FALSE(manager->_AllowDevice(refused)) << refused;
  }
  for (const char* allowed : {"AJAX Camera", "blackmagic design", ""})
    EXPECT_TRUE(manager->_AllowDevice(allowed)) << allowed;

  provider->plug(fake::camera("Intensity Pro", "card"));
  provider->plug(fake::microphone("Brevanta Virtual Microphone", "virtual"));
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(DetectionTest, LinkedDevicesFormOneSourceInWhateverOrderTheyCome) {
  const auto camera = fake::camera("Cam", "c", {"m"});
  const auto microphone = fake::microphone("Mic", "m", {"c"});
  for (const bool isCameraFirst : {true, false}) {
    begin({});
    for (const auto& device : {isCameraFirst ? camera : microphone, isCameraFirst ? microphone : camera}) {
      provider->plug(device);
    }
    ASSERT_THAT(names(), ElementsAre(isCameraFirst ? "Cam Video" : "Mic Audio"));
    EXPECT_EQ(source(names()[0]).getVideoDeviceID(), "c");
    EXPECT_EQ(source(names()[0]).getAudioDeviceID(), "m");
    for (const auto& device : {camera, microphone}) provider->unplug(device);
    EXPECT_THAT(names(), IsEmpty());
  }
}

TEST_F(DetectionTest, AnAudioDeviceJoinsEverySourceItIsLinkedTo) {
  detect(
      {fake::camera("One", "c1", {"m"}), fake::camera("Two", "c2", {"m"}), fake::microphone("Mic", "m", {"c1", "c2"})});

  EXPECT_THAT(names(), ElementsAre("One Video", "Two Video"));
  EXPECT_EQ(source("One Video").getAudioDeviceID(), "m");
  EXPECT_EQ(source("Two Video").getAudioDeviceID(), "m");
}

TEST_F(DetectionTest, DevicesLinkedOnlyToTheirOwnKindBecomeNoSource) {
  detect({fake::camera("A", "a", {"b"}), fake::camera("B", "b", {"a"}), fake::microphone("X", "x", {"y"}),
          fake::microphone("Y", "y", {"x"}), fake::microphone("Z", "z")});

  EXPECT_THAT(names(), ElementsAre("Z Audio"));
}

TEST_F(DetectionTest, ASecondLinkedMicrophoneIsRefusedAndLogged) {
  detect({fake::camera("Cam", "c", {"m1", "m2"}), fake::microphone("One", "m1", {"c"}),
          fake::microphone("Two", "m2", {"c"})});

  EXPECT_EQ(source("Cam Video").getAudioDeviceID(), "m1");
  EXPECT_THAT(log.lines(), ElementsAre("3 Already has an Audio Device Associated with it!\n"));
}

TEST_F(DetectionTest, ADeviceThatCannotBeOpenedIsLoggedAndTriedAgain) {
  auto broken = fake::camera("Broken", "b");
  broken->openError = "Someone else has it.";
  detect({broken, fake::microphone("Mic", "m")});

  EXPECT_THAT(names(), ElementsAre("Mic Audio"));
  EXPECT_THAT(log.lines(), ElementsAre("4 Error Loading Video Source Broken: Someone else has it.\n"));
  EXPECT_EQ(manager->getLastErrorMessage(), "Someone else has it.");

  broken->openError.reset();
  manager->detectDeviceConnect();
  EXPECT_THAT(names(), ElementsAre("Mic Audio", "Broken Video"));
}

TEST_F(DetectionTest, EveryNotificationTellsTheHostOnce) {
  begin({});
  auto refused = fake::camera("Brevanta Virtual Camera", "v");
  auto camera = fake::camera("Cam", "c", {"m"});
  auto microphone = fake::microphone("Mic", "m", {"c"});

  provider->plug(refused);
  provider->plug(camera);
  provider->plug(microphone);
  provider->unplug(microphone);
  EXPECT_THAT(names(), ElementsAre("Cam Video")) << "one side is enough to stay";
  provider->unplug(camera);
  EXPECT_THAT(names(), IsEmpty());

  EXPECT_THAT(states, ElementsAre(BRV_DEVICE_STATE_ATTACHED, BRV_DEVICE_STATE_ATTACHED, BRV_DEVICE_STATE_ATTACHED,
                                  BRV_DEVICE_STATE_REMOVED, BRV_DEVICE_STATE_REMOVED));
}

TEST_F(DetectionTest, ChangesNoticedElsewhereWaitForTheMainThread) {
  auto first = fake::camera("Cam", "c1");
  auto second = fake::camera("Cam", "c2");
  auto third = fake::camera("Cam", "c3");
  detect({first, second, third});

  std::thread([&] {
    provider->unplug(first);
    provider->unplug(second);
  }).join();
  EXPECT_EQ(manager->getDeviceCount(), 3);
  NSRunLoop::mainRunLoop().runUntilIdle();

  EXPECT_THAT(names(), ElementsAre("Cam 2 Video"));
  EXPECT_EQ(states.size(), 2U);
}

TEST_F(DetectionTest, TheHostMayEndTheLibraryWhenItHearsOfAChange) {
  begin({});
  const auto endLibrary = [](void* context, int) {
    delete std::exchange(static_cast<DetectionTest*>(context)->manager, nullptr);
  };
  manager->setStateChangeCallback(endLibrary, this);

  provider->plug(fake::camera("Cam", "c"));

  EXPECT_EQ(manager, nullptr);
}

TEST_F(DetectionTest, AReplacedStateCallbackIsNotRunningAnyMore) {
  begin({});
  struct Slow {
    Gate gate;
    std::atomic<bool> isReplaced{false};
  } slow;
  const auto pass = [](void* context, int) {
    auto& state = *static_cast<Slow*>(context);
    state.gate.pass();
    EXPECT_FALSE(state.isReplaced);
  };
  manager->setStateChangeCallback(pass, &slow);
  std::thread host([&] {
    slow.gate.waitUntilEntered();
    std::thread releasing([&] { slow.gate.open(); });
    manager->setStateChangeCallback(nullptr, nullptr);
    slow.isReplaced = true;
    releasing.join();
  });

  provider->plug(fake::camera("Cam", "c"));
  host.join();

  EXPECT_TRUE(slow.isReplaced);
}

TEST_F(DetectionTest, FireWireCamcordersAreMarkedByTheirUnits) {
  begin({fake::camcorder("Plain", "#08004601024a6c51"), fake::camcorder("Prefixed", " 0x08004601024A6C51"),
         fake::camcorder("DV", "#11"), fake::camcorder("Unknown", "#22"), fake::camcorder("Long", "#108004601024a6c51"),
         fake::camera("Short", "")});
  provider->bus.units = {{0x08004601024a6c51, false, true}, {0x11, true, false}, {0, true, true}};

  manager->detectDeviceConnect();

  for (const auto& [name, isHDV] : std::map<std::string, bool>{{"Plain", true},
                                                               {"Prefixed", true},
                                                               {"DV", false},
                                                               {"Unknown", false},
                                                               {"Long", false},
                                                               {"Short Video", false}}) {
    EXPECT_EQ(source(name).isHDV(), isHDV) << name;
  }
}

TEST_F(DetectionTest, ScreenCaptureDevicesAppearOnceTheyAreAdmitted) {
  auto phone = fake::camcorder("Phone", "p");
  phone->described.isScreenCapture = true;
  const CMIOObjectPropertyAddress address{kCMIOHardwarePropertyAllowScreenCaptureDevices,
                                          kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
  const auto allow = [&](UInt32 value) {
    return CMIOObjectSetPropertyData(kCMIOObjectSystemObject, &address, 0, nullptr, sizeof value, &value);
  };
  EXPECT_EQ(allow(0), 0);
  detect({phone});
  EXPECT_THAT(names(), IsEmpty());

  AV::DeviceManager::initialize();

  EXPECT_THAT(names(), ElementsAre("Phone"));
  EXPECT_EQ(allow(0), 0);
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(DetectionTest, LookUpsByIdGoByNameOrByPosition) {
  detect({fake::camera("Zoo", "both"), fake::camera("Ant", "a", {"m"}), fake::microphone("Mic", "m", {"a"}),
          fake::microphone("Lone", "l")});

  EXPECT_EQ(manager->getDeviceWithID("m"), &source("Ant Video"));
  EXPECT_EQ(manager->getDeviceWithID(""), &source("Lone Audio")) << "first in order of names with an empty ID";
  EXPECT_EQ(manager->getIndexOfDeviceID(""), 0) << "first in list order";
  EXPECT_EQ(manager->getDeviceWithID("nobody"), nullptr);
  manager->_AddDevice(nullptr);
  manager->_AddDevice(&source("Zoo Video"));
  EXPECT_EQ(manager->getDeviceCount(), 3);
}

TEST_F(DetectionTest, TheDeviceListIsPrintedInListOrder) {
  detect({fake::camera("Cam", "c"), fake::microphone("Mic", "m")});

  manager->PrintDeviceList();

  EXPECT_THAT(log.lines(), ElementsAre("2 ---------------    Begin Print Device List    ---------------\n",
                                       "4 \tCam Video (AudioID=, VideoID=c)\n", "4 \tMic Audio (AudioID=m, VideoID=)\n",
                                       "2 ---------------    End Print Device List    ---------------\n"));
}

TEST_F(DetectionTest, AManagerLeavesNothingBehindAndCanBeMadeAgain) {
  const auto observersBefore = NSNotificationCenter::defaultCenter().observerCount();
  detect({fake::camera("Cam", "c")});
  source("Cam Video").startDevice();
  EXPECT_TRUE(manager->hasDeviceRunning());

  delete manager;
  manager = nullptr;
  EXPECT_EQ(NSNotificationCenter::defaultCenter().observerCount(), observersBefore);
  manager = AV::DeviceManager::instance();

  EXPECT_THAT(names(), IsEmpty());
  EXPECT_FALSE(manager->hasDeviceRunning());
}

}  // namespace

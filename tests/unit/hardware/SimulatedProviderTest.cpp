#include "simulated/SimulatedProvider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "MediaFiles.h"
#include "RecordingSink.h"
#include "VirtualScheduler.h"

namespace hardware::simulated {
namespace {

using testing::ElementsAre;

const std::string Desk =
    "[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 160x120 2vuy, rates 25\n"
    "[device]\nid = deck\nname = Deck\nmedia = muxed\nvideo format = 160x120 mp2t, rates 25\nplugged in = no\n"
    "firewire unit = 0x22, mpeg\n"
    "[firewire bus]\nunit = 0x11, dv\n";

std::vector<std::string> idsOf(const std::vector<std::shared_ptr<Device>>& devices) {
  std::vector<std::string> ids;
  for (const auto& device : devices) ids.push_back(device->description().uniqueID);
  return ids;
}

TEST(SimulatedProviderTest, ADeviceStopsThenLeavesTheListThenIsReported) {
  VirtualScheduler scheduler;
  Provider provider(makeRig(Desk));
  const auto camera = provider.device("cam");
  RecordingSink sink;
  camera->start(sink);
  scheduler.runUntil(scheduler.now() + runtime::NanosecondsPerSecond / 10);
  const std::size_t captured = sink.video.size();
  std::vector<std::string> events;
  std::shared_ptr<Device> attached;
  provider.setEventHandler([&](DeviceEvent event, const std::shared_ptr<Device>& device) {
    scheduler.runUntil(scheduler.now() + runtime::NanosecondsPerSecond);
    EXPECT_EQ(sink.video.size(), captured);
    const bool isAttached = event == DeviceEvent::attached;
    EXPECT_EQ(idsOf(provider.devices()).size(), isAttached ? 1u : 0u);
    events.push_back((isAttached ? "+" : "-") + device->description().uniqueID);
    if (isAttached) attached = device;
  });

  EXPECT_TRUE(provider.unplug("cam"));
  EXPECT_FALSE(provider.unplug("cam"));
  EXPECT_TRUE(provider.plug("cam"));
  EXPECT_FALSE(provider.plug("cam"));
  EXPECT_FALSE(provider.plug("ghost"));

  EXPECT_THAT(events, ElementsAre("-cam", "+cam"));
  EXPECT_NE(attached, camera);
  EXPECT_EQ(attached->openFailure(), std::nullopt);
  EXPECT_EQ(camera->openFailure(), "\"Camera\" is not connected.");
  camera->start(sink);
  scheduler.runUntil(scheduler.now() + runtime::NanosecondsPerSecond);
  EXPECT_EQ(sink.video.size(), captured);
}

TEST(SimulatedProviderTest, TheScriptPlugsAtItsTimes) {
  VirtualScheduler scheduler;
  const runtime::Nanoseconds start = scheduler.now();
  Provider provider(makeRig(Desk + "[script]\nat 2.5 s = plug deck\nat 1 s = unplug cam\nat 3 s = plug cam\n"));
  std::vector<std::pair<std::string, double>> events;
  provider.setEventHandler([&](DeviceEvent event, const std::shared_ptr<Device>& device) {
    events.emplace_back((event == DeviceEvent::attached ? "+" : "-") + device->description().uniqueID,
                        static_cast<double>(scheduler.now() - start) / 1e9);
  });

  scheduler.runUntil(start + 10 * runtime::NanosecondsPerSecond);

  EXPECT_THAT(events, ElementsAre(std::pair("-cam", 1.0), std::pair("+deck", 2.5), std::pair("+cam", 3.0)));
  EXPECT_THAT(idsOf(provider.devices()), ElementsAre("deck", "cam"));
}

TEST(SimulatedProviderTest, ADevicesUnitIsOnTheBusWhileItIsPluggedIn) {
  Provider provider(makeRig(Desk));
  const auto guids = [&] {
    std::vector<std::uint64_t> result;
    const FireWireBus bus = provider.fireWireBus();
    for (const FireWireUnit& unit : bus.units.value()) result.push_back(unit.guid);
    return result;
  };

  EXPECT_THAT(guids(), ElementsAre(0x11u));
  provider.plug("deck");
  EXPECT_THAT(guids(), ElementsAre(0x11u, 0x22u));
  provider.unplug("deck");
  EXPECT_THAT(guids(), ElementsAre(0x11u));
  EXPECT_FALSE(Provider(makeRig("[firewire bus]\nopen status = -5\nlist = absent\n")).fireWireBus().units);
}

TEST(SimulatedProviderTest, ReplacingTheHandlerWaitsForItsCallOnAnotherThread) {
  Provider provider(makeRig(Desk));
  runtime::Event inHandler;
  runtime::Event goOn;
  std::atomic<bool> hasReturned = false;
  provider.setEventHandler([&](DeviceEvent, const std::shared_ptr<Device>&) {
    inHandler.signal();
    goOn.wait();
    hasReturned = true;
  });
  std::thread plugger([&] { provider.plug("deck"); });
  inHandler.wait();

  std::thread releaser([&] { goOn.signal(); });
  provider.setEventHandler(nullptr);

  EXPECT_TRUE(hasReturned);
  provider.unplug("deck");
  plugger.join();
  releaser.join();
}

TEST(SimulatedProviderTest, AHandlerMayReplaceItselfAndEvenEndTheProvider) {
  auto provider = std::make_shared<Provider>(makeRig(Desk));
  int first = 0;
  int second = 0;
  provider->setEventHandler([&](DeviceEvent, const std::shared_ptr<Device>&) {
    ++first;
    provider->setEventHandler([&](DeviceEvent, const std::shared_ptr<Device>&) {
      ++second;
      provider.reset();
    });
  });

  provider->plug("deck");
  provider->unplug("deck");

  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
  EXPECT_FALSE(provider);
}

TEST(SystemProviderTest, AnInstalledProviderTakesTheMachinesPlaceAndIsAnnounced) {
  int changes = 0;
  setProviderChangeHandler([&] { ++changes; });
  const auto installed = std::make_shared<Provider>(Rig{});

  installSystemProvider(installed);
  EXPECT_EQ(systemProvider(), installed);
  installSystemProvider(nullptr);
  setProviderChangeHandler(nullptr);
  installSystemProvider(nullptr);

  EXPECT_EQ(changes, 2);
}

// In processes of their own, since a machine makes its provider once.
TEST(SystemProviderDeathTest, WithoutARigInTheEnvironmentItIsTheDemo) {
  EXPECT_EXIT(
      {
        unsetenv("CAPTURE_RIG");
        const bool isDemo = systemProvider()->devices().size() >= 8 && systemProvider() == systemProvider();
        std::_Exit(isDemo ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(SystemProviderDeathTest, ARigWithAnErrorIsAMessageAndAMachineWithoutDevices) {
  MediaFolder folder;
  const std::string path = folder.write("bad.rig", "[device]\nid = cam\nnaem = Camera\n");
  EXPECT_EXIT(
      {
        setenv("CAPTURE_RIG", path.c_str(), 1);
        std::_Exit(systemProvider()->devices().empty() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "bad.rig:3: a device has no 'naem'");
}

}  // namespace
}  // namespace hardware::simulated

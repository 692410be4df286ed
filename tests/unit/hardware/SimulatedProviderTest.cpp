#include "simulated/SimulatedProvider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "MediaFiles.h"
#include "RecordingSink.h"
#include "support/VirtualScheduler.h"

namespace hardware::simulated {
namespace {

using runtime::NanosecondsPerSecond;
using testing::ElementsAre;

const std::string Desk =
    "[device]\nid = cam\nname = Camera\nmedia = video\nvideo format = 160x120 2vuy, rates 25\n"
    "firewire unit = 0x22, dv\n"
    "[device]\nid = deck\nname = Deck\nmedia = muxed\nvideo format = 160x120 mp2t, rates 25\nplugged in = no\n";

std::string said(DeviceEvent event, const std::shared_ptr<Device>& device) {
  return (event == DeviceEvent::attached ? "+" : "-") + device->description().uniqueID;
}

TEST(SimulatedProviderTest, ADeviceStopsThenLeavesTheListAndTheBusThenIsReported) {
  test::VirtualScheduler scheduler;
  const auto epoch = scheduler.now();
  Provider provider(makeRig(Desk + "[script]\nat 2.5 s = plug cam\nat 1 s = unplug cam\n"));
  const auto camera = provider.device("cam");
  RecordingSink sink;
  camera->start(sink);
  std::vector<std::pair<std::string, double>> events;
  std::shared_ptr<Device> attached;
  provider.setEventHandler([&](DeviceEvent event, const std::shared_ptr<Device>& device) {
    events.emplace_back(said(event, device), static_cast<double>(scheduler.now() - epoch) / 1e9);
    scheduler.sleepUntil(scheduler.now() + NanosecondsPerSecond);
    attached = event == DeviceEvent::attached ? device : nullptr;
    EXPECT_EQ(provider.devices().size(), attached ? 1u : 0u);
    EXPECT_EQ(provider.fireWireBus().units->size(), attached ? 1u : 0u);
  });

  scheduler.sleepUntil(10 * NanosecondsPerSecond);
  camera->start(sink);
  scheduler.sleepUntil(20 * NanosecondsPerSecond);

  EXPECT_THAT(events, ElementsAre(std::pair("-cam", 1.0), std::pair("+cam", 2.5)));
  EXPECT_EQ(sink.video.size(), 25u);
  EXPECT_TRUE(attached != camera && !attached->openFailure());
  EXPECT_EQ(camera->openFailure(), "\"Camera\" is not connected.");
  EXPECT_FALSE(provider.plug("cam") || provider.plug("ghost") || provider.unplug("deck"));
}

TEST(SimulatedProviderTest, ReplacingTheHandlerWaitsForItsCallOnAnotherThread) {
  Provider provider(makeRig(Desk));
  runtime::Event inHandler, goOn;
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
  plugger.join();
  releaser.join();
}

TEST(SimulatedProviderTest, AHandlerMayReplaceItselfAndEvenEndTheProvider) {
  auto provider = std::make_shared<Provider>(makeRig(Desk));
  std::vector<std::string> events;
  provider->setEventHandler([&](DeviceEvent event, const std::shared_ptr<Device>& device) {
    events.push_back(said(event, device));
    provider->setEventHandler([&](DeviceEvent nextEvent, const std::shared_ptr<Device>& nextDevice) {
      events.push_back(said(nextEvent, nextDevice));
      provider.reset();
    });
  });

  provider->plug("deck");
  provider->unplug("deck");

  EXPECT_THAT(events, ElementsAre("+deck", "-deck"));
  EXPECT_FALSE(provider);
}

}  // namespace
}  // namespace hardware::simulated

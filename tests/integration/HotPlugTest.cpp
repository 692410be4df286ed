#include <gtest/gtest.h>
#include <simulated/DemoRig.h>

#include <atomic>
#include <thread>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

// Devices that come and go while they run, and a library that ends while they do, on real threads in real time.

namespace {

class HotPlugTest : public FrameworkTest {
 protected:
  static void receiveAudio(void* context, BRV_AudioBuffer*) { ++*static_cast<std::atomic<int>*>(context); }

  const std::shared_ptr<hardware::simulated::Provider> provider =
      rigs::install(std::string(hardware::simulated::demoRigText()));
  Host host;
};

TEST_F(HotPlugTest, TheHostsThreadItsCallbacksAndTheMainThreadMayMeetUntilTheLibraryEnds) {
  const auto sources = host.sources();
  const auto ask = [](void* context, BRV_VideoBuffer*) {
    static_cast<const Host*>(context)->has("HD Webcam Video", "ProvidesVideo");
    static_cast<const Host*>(context)->timescale("Desk Camera Video");
  };
  std::atomic<int> sounds{0};
  std::atomic<bool> isDone{false};
  std::thread hostThread([&] {
    for (int i = 0; i < 40; ++i) {
      host.disconnect();
      for (const auto& source : sources) {
        host.registerVideo(source, ask, &host);
        host.has(source, "ProvidesAudio");
        host.registerAudio(source, receiveAudio, &sounds);
        host.registerVideo(source, nullptr, nullptr);
        host.registerAudio(source, receiveAudio, &sounds);
      }
    }
    isDone = true;
  });
  for (int i = 0; !isDone; ++i) {
    const char* id = i % 2 == 0 ? "webcam-hd" : "webcam-hd-microphone";
    if (!provider->unplug(id)) provider->plug(id);
    runMainLoop(0.001);
  }
  hostThread.join();

  host.uninitialize();

  const int seen = sounds;
  runMainLoop(0.02);
  EXPECT_EQ(sounds, seen);
}

}  // namespace

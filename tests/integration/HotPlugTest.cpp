#include <gtest/gtest.h>
#include <simulated/DemoRig.h>

#include <atomic>
#include <thread>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

// Devices that come and go while they run, and a library that ends while they do, on real threads in real time.

namespace {

/// Whether a thread of the frameworks runs the main queue's blocks, in the main thread's place.
class HotPlugTest : public FrameworkTest, public testing::WithParamInterface<bool> {
 protected:
  struct MainQueueThread {
    explicit MainQueueThread(bool isWanted) : isStarted(isWanted && CFRunLoopStartThread(CFRunLoopGetMain())) {}
    ~MainQueueThread() {
      if (isStarted) CFRunLoopEndThread(CFRunLoopGetMain());
    }
    const bool isStarted;
  };

  /// Returns when what has been posted so far has run.
  void letBlocksRun() {
    runMainLoop(0.001);
    if (thread.isStarted)
      CFRunLoopPerformAndWait(
          CFRunLoopGetMain(), [](void*) {}, nullptr);
  }

  static void receiveAudio(void* context, BRV_AudioBuffer*) { ++*static_cast<std::atomic<int>*>(context); }

  const MainQueueThread thread{GetParam()};
  const std::shared_ptr<hardware::simulated::Provider> provider =
      rigs::install(std::string(hardware::simulated::demoRigText()));
  Host host;
};

TEST_P(HotPlugTest, TheHostsThreadItsCallbacksAndTheMainThreadMayMeetUntilTheLibraryEnds) {
  ASSERT_EQ(thread.isStarted, GetParam());
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
    letBlocksRun();
  }
  hostThread.join();

  host.uninitialize();

  const int seen = sounds;
  runMainLoop(0.02);
  EXPECT_EQ(sounds, seen);
}

INSTANTIATE_TEST_SUITE_P(MainQueueThread, HotPlugTest, testing::Bool());

}  // namespace

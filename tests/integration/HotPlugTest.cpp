#include <CoreVideo/CVPixelBuffer.h>
#include <gmock/gmock.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <simulated/DemoRig.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

// Devices that come and go while they run, and a library that ends while they do.

namespace {

using testing::Contains;
using testing::Not;

std::size_t entriesOf(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

class HotPlugTest : public FrameworkTest {
 protected:
  HotPlugTest() {
    zThread::SetSleepFunction([](unsigned) {});
    // Cameras are unplugged while they are configured, which is worth a note each time.
    zTrace::Default().SetSink([](const char*) {});
  }
  ~HotPlugTest() override {
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  static void receiveVideo(void* context, BRV_VideoBuffer*) { ++*static_cast<std::atomic<int>*>(context); }
  static void receiveAudio(void* context, BRV_AudioBuffer*) { ++*static_cast<std::atomic<int>*>(context); }

  const std::shared_ptr<hardware::simulated::Provider> provider =
      rigs::install(std::string(hardware::simulated::demoRigText()));
  std::atomic<int> samples{0};
};

TEST_F(HotPlugTest, ARunningPairCanComeAndGoAllDay) {
  // A thousand times, unless the environment asks for another number.
  const char* wanted = std::getenv("HOTPLUG_CYCLES");
  const int cycles = wanted ? std::atoi(wanted) : 1000;
  Host host;
  const std::string source = "HD Webcam Video";
  const auto resources = [] {
    return std::tuple(NSObject::liveObjectCount(), entriesOf("/proc/self/task"), entriesOf("/proc/self/fd"));
  };
  const auto cycle = [&](int i) {
    host.registerVideo(source, receiveVideo, &samples);
    host.registerAudio(source, receiveAudio, &samples);
    if (i % 8 == 0) NSRunLoop::mainRunLoop().runForSeconds(0.02);
    for (const char* id : {"webcam-hd", "webcam-hd-microphone"}) EXPECT_TRUE(provider->unplug(id));
    EXPECT_THAT(host.sources(), Not(Contains(source)));
    for (const char* id : {"webcam-hd", "webcam-hd-microphone"}) EXPECT_TRUE(provider->plug(id));
    EXPECT_THAT(host.sources(), Contains(source));
  };

  cycle(0);
  cycle(1);
  const auto [objects, threads, descriptors] = resources();
  for (int i = 0; i < cycles; ++i) cycle(i);

  const auto [objectsAfter, threadsAfter, descriptorsAfter] = resources();
  EXPECT_GT(samples, 0);
  EXPECT_EQ(objectsAfter, objects);
  EXPECT_LE(threadsAfter, threads);
  EXPECT_LE(descriptorsAfter, descriptors);
  EXPECT_EQ(host.states().size(), static_cast<std::size_t>(4 * (cycles + 2)));
}

TEST_F(HotPlugTest, TheHostsThreadItsCallbacksAndTheMainThreadMayMeet) {
  Host host;
  const auto sources = host.sources();
  const auto ask = [](void* context, BRV_VideoBuffer*) {
    static_cast<const Host*>(context)->has("HD Webcam Video", "ProvidesVideo");
    static_cast<const Host*>(context)->timescale("Desk Camera Video");
  };
  std::atomic<bool> isDone{false};
  std::thread hostThread([&] {
    for (int i = 0; i < 40; ++i) {
      for (const auto& source : sources) {
        host.registerVideo(source, ask, &host);
        host.has(source, "ProvidesAudio");
        host.timescale(source);
        host.registerAudio(source, receiveAudio, &samples);
        host.registerVideo(source, nullptr, nullptr);
      }
      host.disconnect();
    }
    isDone = true;
  });
  for (int i = 0; !isDone; ++i) {
    const char* id = i % 2 == 0 ? "webcam-hd" : "webcam-hd-microphone";
    if (!provider->unplug(id)) provider->plug(id);
    NSRunLoop::mainRunLoop().runForSeconds(0.001);
  }
  hostThread.join();
}

TEST_F(HotPlugTest, ALibraryThatEndsWhileSourcesRunCallsNobodyAfterwards) {
  for (int round = 0; round < 20; ++round) {
    Host host;
    std::atomic<int> calls{0};
    for (const auto& source : host.sources()) {
      host.registerVideo(source, receiveVideo, &calls);
      host.registerAudio(source, receiveAudio, &calls);
    }
    NSRunLoop::mainRunLoop().runForSeconds(0.01);

    host.uninitialize();

    const int seen = calls;
    NSRunLoop::mainRunLoop().runForSeconds(0.005);
    EXPECT_EQ(calls, seen);
  }
}

TEST_F(HotPlugTest, KeptFramesExhaustThePoolUntilTheHostLetsGoAndOutliveTheLibrary) {
  Host host;
  struct Kept {
    std::mutex lock;
    std::vector<CVPixelBufferRef> frames;
  } kept;
  const auto keep = [](void* context, BRV_VideoBuffer* buffer) {
    auto& into = *static_cast<Kept*>(context);
    std::lock_guard lock(into.lock);
    into.frames.push_back(CVPixelBufferRetain(static_cast<CVPixelBufferRef>(buffer->data)));
  };
  const auto keepUntilDropped = [&] {
    const int before = host.logged("Dropped a Frame!\n");
    const auto isExhausted = [&] {
      std::lock_guard lock(kept.lock);
      return kept.frames.size() >= 16 && host.logged("Dropped a Frame!\n") > before;
    };
    for (int i = 0; i < 1000 && !isExhausted(); ++i) NSRunLoop::mainRunLoop().runForSeconds(0.01);
    EXPECT_TRUE(isExhausted());
    std::lock_guard lock(kept.lock);
    EXPECT_LE(kept.frames.size(), 32U) << "a pool's worth of each size: the first may come before the format is set";
  };
  host.registerVideo("Desk Camera Video", keep, &kept);
  keepUntilDropped();
  {
    std::lock_guard lock(kept.lock);
    for (CVPixelBufferRef frame : std::exchange(kept.frames, {})) CVPixelBufferRelease(frame);
  }
  keepUntilDropped();
  host.disconnect();
  provider->unplug("desk-camera-left");
  host.uninitialize();

  for (CVPixelBufferRef frame : kept.frames) {
    CVPixelBufferLockBaseAddress(frame, kCVPixelBufferLock_ReadOnly);
    EXPECT_NE(*static_cast<const unsigned char*>(CVPixelBufferGetBaseAddress(frame)), 0);
    CVPixelBufferUnlockBaseAddress(frame, kCVPixelBufferLock_ReadOnly);
    CVPixelBufferRelease(frame);
  }
}

}  // namespace

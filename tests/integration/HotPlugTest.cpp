#include <CoreVideo/CVPixelBuffer.h>
#include <gmock/gmock.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <simulated/DemoRig.h>
#include <simulated/RigParser.h>
#include <simulated/SimulatedProvider.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"

// Devices that come and go while they run, and a library that ends while they do.

namespace {

using hardware::simulated::Provider;
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
    auto rig = hardware::simulated::parseRig(hardware::simulated::demoRigText(), "demo");
    provider = std::make_shared<Provider>(std::get<hardware::simulated::Rig>(rig));
    hardware::installSystemProvider(provider);
  }
  ~HotPlugTest() override {
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  static void receiveVideo(void* context, BRV_VideoBuffer*) { ++*static_cast<std::atomic<int>*>(context); }
  static void receiveAudio(void* context, BRV_AudioBuffer*) { ++*static_cast<std::atomic<int>*>(context); }

  std::shared_ptr<Provider> provider;
  std::atomic<int> samples{0};
};

TEST_F(HotPlugTest, ARunningPairCanComeAndGoAllDay) {
  // A thousand times, unless the environment asks for another number.
  const char* wanted = std::getenv("HOTPLUG_CYCLES");
  const int cycles = wanted ? std::atoi(wanted) : 1000;
  Host host;
  const std::string source = "HD Webcam Video";
  struct Resources {
    std::int64_t objects;
    std::size_t threads;
    std::size_t descriptors;
  };
  const auto resources = [] {
    return Resources{NSObject::liveObjectCount(), entriesOf("/proc/self/task"), entriesOf("/proc/self/fd")};
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
  const Resources before = resources();
  for (int i = 0; i < cycles; ++i) cycle(i);

  const Resources after = resources();
  EXPECT_GT(samples, 0);
  EXPECT_EQ(after.objects, before.objects);
  EXPECT_LE(after.threads, before.threads);
  EXPECT_LE(after.descriptors, before.descriptors);
  EXPECT_EQ(host.states().size(), static_cast<std::size_t>(4 * (cycles + 2)));
}

TEST_F(HotPlugTest, TheHostsThreadAndTheMainThreadMayMeet) {
  Host host;
  const auto sources = host.sources();
  std::atomic<bool> isDone{false};
  std::thread hostThread([&] {
    for (int i = 0; i < 40; ++i) {
      for (const auto& source : sources) {
        host.registerVideo(source, receiveVideo, &samples);
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

struct Asking {
  const Host* host;
  std::vector<std::string> sources;
  std::atomic<int> answers{0};

  static void receive(void* context, BRV_VideoBuffer*) {
    auto& self = *static_cast<Asking*>(context);
    for (const auto& source : self.sources) {
      self.answers += self.host->has(source, "ProvidesVideo");
      self.host->timescale(source);
      self.host->has(source, "HDV");
    }
  }
};

TEST_F(HotPlugTest, ACallbackMayAskWhileSourcesAreRemoved) {
  Host host;
  Asking asking{&host, host.sources()};
  for (const auto& source : asking.sources) host.registerVideo(source, Asking::receive, &asking);
  NSRunLoop::mainRunLoop().runForSeconds(0.1);
  for (const char* id : {"webcam-hd", "desk-camera-left", "tethered-phone", "webcam-hd-microphone"}) {
    provider->unplug(id);
    NSRunLoop::mainRunLoop().runForSeconds(0.02);
  }
  host.uninitialize();

  EXPECT_GT(asking.answers, 0);
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

struct Keeper {
  std::mutex lock;
  std::vector<CVPixelBufferRef> kept;

  static void receive(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<Keeper*>(context);
    std::lock_guard guard(self.lock);
    self.kept.push_back(CVPixelBufferRetain(static_cast<CVPixelBufferRef>(buffer->data)));
  }
};

TEST_F(HotPlugTest, KeptFramesExhaustThePoolAndOutliveTheLibrary) {
  Host host;
  Keeper keeper;
  host.registerVideo("Desk Camera Video", Keeper::receive, &keeper);
  for (int i = 0; i < 300 && host.logged("Dropped a Frame!\n") == 0; ++i) NSRunLoop::mainRunLoop().runForSeconds(0.01);
  EXPECT_GT(host.logged("Dropped a Frame!\n"), 0);
  host.disconnect();
  EXPECT_LE(keeper.kept.size(), 32U)
      << "a pool's worth of each size: the first frames may come before the format is set";
  provider->unplug("desk-camera-left");
  host.uninitialize();

  for (CVPixelBufferRef frame : keeper.kept) {
    CVPixelBufferLockBaseAddress(frame, kCVPixelBufferLock_ReadOnly);
    EXPECT_NE(*static_cast<const unsigned char*>(CVPixelBufferGetBaseAddress(frame)), 0);
    CVPixelBufferUnlockBaseAddress(frame, kCVPixelBufferLock_ReadOnly);
    CVPixelBufferRelease(frame);
  }
}

}  // namespace

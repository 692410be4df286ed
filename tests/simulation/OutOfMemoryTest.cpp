#include <AVFoundation/Capture/SampleLedger.h>
#include <gtest/gtest.h>
#include <lumora/zThread.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <string>

#include "AVDeviceManager.h"
#include "AVLog.h"
#include "BRV_AVCapture.h"
#include "support/FailingAllocations.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/OpenDescriptors.h"
#include "support/SimulationScheduler.h"

// A host's session with the library, in which memory runs out at every point at which it can.

namespace test {
namespace {

/// A host that needs no memory of its own, and what it saw.
class Host {
 public:
  void begin() {
    BRV_RegisterPreferenceCallback([](void*, const char*, char*, int* length) { *length = 0; },
                                   [](void*, const char*, const char*) {}, this);
    BRV_RegisterLocalizeStringCallback([](const char* key) { return key; });
    BRV_IntitializeLibrary();
    BRV_RegisterDeviceStateChangedCallback(nullptr, onState, this);
    BRV_RegisterLogCallback(nullptr, onLog, this);
    look();
  }

  static void end() noexcept {
    BRV_DisconnectDevice();
    BRV_UninitializeLibrary();
    run();
  }

  void look() {
    for (int i = 0; i < BRV_GetSourceCount(); ++i) {
      std::array<char, 4096> text;
      std::array<char, 64> source;
      int length = 0;
      BRV_GetSourceId(nullptr, i, nullptr, &length);
      BRV_GetSourceId(nullptr, i, source.data(), &length);
      const char* const id = source.data();
      see("source %s (%d), %d ticks, sound %d", id, length, BRV_GetTimescaleTicksPerSec(nullptr, id),
          BRV_SourceSupportsProperty(nullptr, id, "ProvidesAudio"));
      BRV_GetProperty(this, onProperty, "device_id", "", id);
      BRV_GetProperty(this, onProperty, "frame_duration", "", id);
      for (const char* name : {"Video Settings", "Video FPS", "Audio Settings"}) {
        BRV_QueryParameterOptions(nullptr, id, name, nullptr, &length);
        see("%s: %d", name, length);
        BRV_QueryParameterOptions(nullptr, id, name, text.data(), &length);
      }
      BRV_GetSourceSettings(nullptr, id, nullptr, &length);
      BRV_GetSourceSettings(nullptr, id, text.data(), &length);
      BRV_GetValidParameterValues(nullptr, id, nullptr, &length);
      see("settings and values: %d", length);
      BRV_GetErrorMessage(nullptr, nullptr, -i, nullptr, &length);
    }
  }

  void listen(const char* source, bool isWanted = true) {
    BRV_RegisterSourceChangedCallback(nullptr, source, isWanted ? onState : nullptr, this);
    BRV_RegisterVideoDataArrivedCallback(nullptr, source, isWanted ? onVideo : nullptr, this);
    BRV_RegisterAudioDataArrivedCallback(nullptr, source, isWanted ? onAudio : nullptr, this);
    run();
  }

  void set(const char* source, const char* parameter, int value) {
    std::array<char, 256> text;
    std::snprintf(text.data(), text.size(),
                  R"(<record name="settings"><record name="parameter"><text name="name" value="%s"/>)"
                  R"(<int32 name="value" value="%d"/></record></record>)",
                  parameter, value);
    see("set %s: %d", parameter, BRV_SetSourceSettings(nullptr, source, text.data()));
    run();
  }

  static void run(double seconds = 0.01) { runMainLoop(seconds); }

  bool hasSeen(const char* what) const { return std::strstr(_seen.data(), what) != nullptr; }
  std::string seen() const { return _seen.data(); }
  void forget() { _seen[0] = 0; }

 private:
  static void onVideo(void* host, BRV_VideoBuffer* buffer) { self(host).see("picture %d", buffer->width); }
  static void onAudio(void* host, BRV_AudioBuffer* buffer) { self(host).see("sound %d", buffer->dataLength); }
  static void onState(void* host, int state) { self(host).see("state %d", state); }
  static void onProperty(void* host, int type, const void* value) {
    if (type == BRV_PROPERTY_STRING) return self(host).see("%s", static_cast<const char*>(value));
    self(host).see("%lld", static_cast<long long>(*static_cast<const std::int64_t*>(value)));
  }
  static void onLog(void* host, int, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    self(host).seeAll(format, arguments);
    va_end(arguments);
  }
  static Host& self(void* host) { return *static_cast<Host*>(host); }

  __attribute__((format(printf, 2, 3))) void see(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    seeAll(format, arguments);
    va_end(arguments);
  }

  void seeAll(const char* format, std::va_list arguments) {
    const std::size_t used = std::strlen(_seen.data());
    std::vsnprintf(_seen.data() + used, _seen.size() - used - 1, format, arguments);
    std::strcat(_seen.data(), "\n");
  }

  std::array<char, 65536> _seen{};
};

/// Everything that a host can do, with devices that do as they are told.
class FakeMachine {
 public:
  FakeMachine() { _provider->unplug(_microphone); }

  void use(Host& host) noexcept {
    host.begin();
    host.listen("Camera Video");
    host.listen("Deck");
    capture();
    host.set("Camera Video", "Video Settings", 0);
    host.set("Deck", "Video FPS", 0);
    host.set("Camera Video", "Audio Settings", 1);
    plug(_microphone);
    host.listen("Camera Video");
    capture();
    unplug(_camera);
    capture();
    host.look();
    unplug(_microphone);
    host.set("Deck", "Video FPS", 0);
    plug(_microphone);
    host.listen("Mic Audio");
    plug(_camera);
    host.listen("Mic Audio");
    capture();
    host.listen("Deck", false);
    host.look();
  }

  void useAnew(Host& host) {
    const std::array devices{_camera, _microphone, _camcorder};
    host.begin();
    for (const auto& device : AVCaptureDevice::devices()) expectOneSource(device->uniqueID());
    for (int i = 0; i < BRV_GetSourceCount(); ++i) expectSamples(host, i);
    for (const auto& device : devices) unplug(device);
    host.begin();
    for (const auto& device : devices) plug(device);
    host.forget();
    for (const char* source : {"Camera Video", "Deck"}) host.listen(source);
    capture();
    host.look();
  }

  void capture() {
    static const std::array<std::uint8_t, 8 * 600> sound{};
    for (int i = 0; i < 3; ++i) {
      const CMTime time = CMTimeMake(++_ticks, 30);
      for (fake::Device* device : {_camera.get(), _camcorder.get()}) {
        device->captureFrame(time);
        device->loseFrame(time);
      }
      for (fake::Device* device : {_microphone.get(), _camcorder.get()}) {
        device->captureSound(time, sound.data(), 600);
      }
      Host::run();
    }
  }

 private:
  /// Whatever could not be done for want of memory has been done by now.
  static void expectOneSource(const std::string& uniqueID) {
    auto& manager = *AV::DeviceManager::instance();
    const auto source = manager.getDeviceWithID(uniqueID);
    ASSERT_TRUE(source) << uniqueID;
    EXPECT_EQ(manager._getDeviceFromTotalDevice(uniqueID), source);
    for (int i = 0; i < manager.getDeviceCount(); ++i) {
      const auto each = manager.getDeviceWithIndex(i);
      const bool uses = each->getVideoDeviceID() == uniqueID || each->getAudioDeviceID() == uniqueID;
      EXPECT_EQ(uses, each == source) << uniqueID << " is in " << each->getDeviceName() << " as well";
    }
  }

  void expectSamples(Host& host, int index) {
    const auto source = AV::DeviceManager::instance()->getDeviceWithIndex(index);
    host.listen(source->getDeviceName().c_str());
    host.forget();
    capture();
    EXPECT_EQ(host.hasSeen("picture"), source->hasVideoStream()) << source->getDeviceName();
    EXPECT_EQ(host.hasSeen("sound"), source->hasAudioStream()) << source->getDeviceName();
    host.listen(source->getDeviceName().c_str(), false);
    source->stopDevice();
  }

  void plug(const std::shared_ptr<fake::Device>& device) {
    _provider->plug(device);
    Host::run();
  }

  void unplug(const std::shared_ptr<fake::Device>& device) {
    _provider->unplug(device);
    Host::run();
  }

  // The identifiers do not fit into a string without memory of its own.
  const std::shared_ptr<fake::Device> _camera = fake::camera("Camera", "identifier of camera", {"identifier of mic"});
  const std::shared_ptr<fake::Device> _microphone =
      fake::microphone("Mic", "identifier of mic", {"identifier of camera"});
  const std::shared_ptr<fake::Device> _camcorder = fake::camcorder("Deck", "0x0080880303480cd1");
  const std::shared_ptr<fake::Provider> _provider = fake::install({_camera, _microphone, _camcorder});
  std::int64_t _ticks = 0;
};

std::int64_t sessionAllocations = 0;  ///< in the part in which some may fail

/// A session in which memory runs out: what the host sees once there is memory again.
std::string session(std::int64_t allowed = std::numeric_limits<std::int64_t>::max()) {
  SimulationScheduler scheduler;
  FakeMachine machine;
  Host host;
  {
    const FailingAllocations failing(allowed);
    machine.use(host);
  }
  sessionAllocations = FailingAllocations::count();
  machine.useAnew(host);
  const std::string seen = host.seen();
  BRV_DisconnectDevice();
  machine.capture();
  EXPECT_EQ(host.seen(), seen) << "a source that was stopped goes on";
  Host::end();
  hardware::installSystemProvider(nullptr);
  return host.seen();
}

class OutOfMemoryTest : public FrameworkTest {
 protected:
  OutOfMemoryTest() { zThread::SetSleepFunction(SimulationScheduler::sleepFor); }
  ~OutOfMemoryTest() override { zThread::SetSleepFunction(nullptr); }
};

// The environment's FIRST_ALLOCATION goes straight to the one that ended an earlier run.
TEST_F(OutOfMemoryTest, NothingEndsTheProcessOrIsLeftBehindAndTheNextTryWorks) {
  session();  // what is made once for all
  const std::string expected = session();
  const std::int64_t allocations = sessionAllocations;
  const auto objects = NSObject::liveObjectCount();
  const auto descriptors = openDescriptors();

  static std::int64_t allowed;
  const auto former = std::set_terminate([] {
    std::fprintf(stderr, "ended by allocation %lld\n", static_cast<long long>(allowed));
    std::abort();
  });
  const char* const first = std::getenv("FIRST_ALLOCATION");
  for (allowed = first ? std::atoi(first) : 0; allowed < allocations; allowed += ALLOCATIONS_APART) {
    SCOPED_TRACE("allocation " + std::to_string(allowed));
    ASSERT_EQ(session(allowed), expected);
    ASSERT_EQ(NSObject::liveObjectCount(), objects);
    ASSERT_EQ(runtime::liveLaneCount(), 0);
    ASSERT_EQ(openDescriptors(), descriptors);
  }
  std::set_terminate(former);
  std::printf("memory ran out in %lld places\n", static_cast<long long>(allocations / ALLOCATIONS_APART));
}

TEST_F(OutOfMemoryTest, RunningCaptureNeedsNone) {
  SimulationScheduler scheduler;
  FakeMachine machine;
  Host host;
  machine.use(host);
  machine.useAnew(host);
  for (int round = 0; round < 20; ++round) {
    host.forget();
    const FailingAllocations counting;
    machine.capture();
  }

  EXPECT_EQ(FailingAllocations::count(), 0);
  EXPECT_NE(host.seen(), "");
  Host::end();
  hardware::installSystemProvider(nullptr);
}

}  // namespace
}  // namespace test

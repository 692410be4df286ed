// Counts the allocations of running sources, from the simulated hardware to the host's callback, and prints a line for
// each source: its name, the deliveries counted, the allocations that the whole process made meanwhile, on all threads.

#include <lumora/zThread.h>
#include <simulated/RigParser.h>
#include <simulated/SimulatedProvider.h>
#include <support/Samples.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "AVDeviceManager.h"
#include "AllocationHook.h"

namespace {

constexpr int WarmUp = 1000;
constexpr int Counted = 10'000;

/// Sees the deliveries of one source, all on its queue.
class Witness {
 public:
  template <typename Record>
  static void see(void* context, Record*) {
    static_cast<Witness*>(context)->see();
  }

  std::int64_t waitForAllocations() {
    _isDone.wait(false);
    return _after - _before;
  }

 private:
  void see() {
    ++_deliveries;
    if (_deliveries == WarmUp) _before = bench::allocationCount();
    if (_deliveries != WarmUp + Counted) return;
    _after = bench::allocationCount();
    _isDone = true;
    _isDone.notify_one();
  }

  int _deliveries = 0;
  std::int64_t _before = 0;
  std::int64_t _after = 0;
  std::atomic<bool> _isDone{false};
};

struct Source {
  const char* name;
  const char* rig;  ///< without the device's ID and name
};

constexpr Source Sources[] = {
    {"video", "media = video\nvideo format = 320x180 yuvs, rates 30\npixel aspect = 4:3\npacing = consumer\n"},
    {"video in real time", "media = video\nvideo format = 64x36 yuvs, rates 1000\n"},
    {"sound without conversion",
     "media = audio\naudio format = 44100 Hz, 16-bit integer, stereo\nsound = tone 440 -20\npacing = consumer\n"},
    {"sound with conversion",
     "media = audio\naudio format = 48000 Hz, 32-bit float, stereo\nsound = tone 440 -20\npacing = consumer\n"},
};

bool count(const Source& source) {
  const std::string text = std::string("[device]\nid = device\nname = Device\n") + source.rig;
  auto rig = hardware::simulated::parseRig(text, source.name);
  if (const auto* error = std::get_if<hardware::simulated::RigError>(&rig)) {
    std::fprintf(stderr, "%s\n", error->message().c_str());
    return false;
  }
  hardware::installSystemProvider(
      std::make_shared<hardware::simulated::Provider>(std::get<hardware::simulated::Rig>(std::move(rig))));
  const std::unique_ptr<AV::DeviceManager> manager(AV::DeviceManager::instance());
  manager->detectDeviceConnect();
  const auto device = manager->getDeviceWithIndex(0);
  if (!device) return false;

  Witness witness;
  if (device->hasVideoStream()) device->setVideoDataArriveCallback(Witness::see<BRV_VideoBuffer>, &witness);
  if (device->hasAudioStream()) device->setAudioDataArrivedCallback(Witness::see<BRV_AudioBuffer>, &witness);
  device->startDevice();
  const std::int64_t allocations = witness.waitForAllocations();
  device->stopDevice();
  std::printf("%s;%d;%lld\n", source.name, Counted, static_cast<long long>(allocations));
  return true;
}

/// Sound in the host's format must reach the host in the sample's own memory: counts where it does not.
void countCopies() {
  constexpr AudioStreamBasicDescription HostFormat{44100, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
  const auto sample = samples::sound(HostFormat, CMTimeMake(0, 44100), {std::vector<std::uint8_t>(4096)}, 1024);
  struct Seen {
    char* memory = nullptr;
    int copies = 0;
  } seen;
  CMBlockBufferGetDataPointer(CMSampleBufferGetDataBuffer(sample.get()), 0, nullptr, nullptr, &seen.memory);
  const auto delegate = ACaptureDelegate::init();
  delegate->setAudioDataArrivedCallback([](void* context, BRV_AudioBuffer* buffer) {
    auto& self = *static_cast<Seen*>(context);
    if (buffer->data != self.memory) ++self.copies;
  });
  delegate->setAudioDataArrivedContext(&seen);
  for (int i = 0; i < Counted; ++i) delegate->captureOutputDidOutputSampleBuffer(nullptr, sample.get(), nullptr);
  std::printf("copies in pass-through;%d;%d\n", Counted, seen.copies);
}

}  // namespace

int main() {
  zThread::SetSleepFunction([](unsigned) {});
  for (const Source& source : Sources) {
    if (!count(source)) return 1;
  }
  hardware::installSystemProvider(nullptr);
  countCopies();
  return 0;
}

// Rig files, and the machines that they describe.

#include <simulated/RigParser.h>
#include <simulated/SimulatedProvider.h>

#include <algorithm>

#include "Machine.h"

namespace {

using hardware::simulated::Rig;

/// A second of it costs no more than a few pictures.
bool isSmall(const Rig& rig) {
  return rig.devices.size() <= 4 && std::ranges::all_of(rig.devices, [](const auto& device) {
           return std::ranges::all_of(device.description.videoFormats,
                                      [](const auto& format) { return format.width <= 320 && format.height <= 240; });
         });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto parsed = hardware::simulated::parseRig({reinterpret_cast<const char*>(data), size}, "input.rig");
  if (const auto* error = std::get_if<hardware::simulated::RigError>(&parsed)) {
    fuzz::require(error->line >= 0 && !error->reason.empty());
    return 0;
  }
  Rig rig = std::get<Rig>(std::move(parsed));
  if (!isSmall(rig)) return 0;

  struct Rest final : hardware::Sink {
    void videoFrameCaptured(const hardware::VideoFrame&) override { ++samples; }
    void videoFrameLost(CMTime, CMTime) override { ++samples; }
    void audioChunkCaptured(const hardware::AudioChunk&) override { ++samples; }
    void audioChunkLost(CMTime, std::uint32_t) override { ++samples; }
    bool hasRoomForVideo() override { return samples < 100; }
    bool hasRoomForAudio() override { return samples < 100; }
    int samples = 0;
  } sink;
  test::SimulationScheduler scheduler;
  const auto provider = std::make_shared<hardware::simulated::Provider>(std::move(rig));
  const auto devices = provider->devices();
  for (const auto& device : devices) device->start(sink);
  scheduler.sleepUntil(scheduler.now() + 50'000'000);
  for (const auto& device : devices) device->stop();
  return 0;
}

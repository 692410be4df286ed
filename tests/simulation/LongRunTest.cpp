#include <gtest/gtest.h>
#include <lumora/zThread.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "BRV_AVCapture.h"
#include "support/FrameworkTest.h"
#include "support/Rigs.h"
#include "support/SimulationScheduler.h"

// A day with four sources: clocks that drift, samples that come early and late, frames that get lost, timescales that
// change, and every minute something that is plugged in or out.

namespace test {
namespace {

// What is drawn is not the point: the pictures are small.
constexpr const char* Machine =
    "[device]\nid = cam\nname = Webcam\nmedia = video\nlinks = mic\nvideo format = 64x36 2vuy, rates 30\n"
    "clock drift = 200 ppm\nclock jitter = 2 ms\nvideo fault = lost frame, every 97\n"
    "[device]\nid = mic\nname = Webcam Microphone\nmedia = audio\naudio format = 48000 Hz, 32-bit float, stereo\n"
    "audio buffer = 1024\nclock drift = 200 ppm\n"
    "[device]\nid = pocket\nname = Pocket\nmedia = muxed\nvideo format = 64x36 mp2t, rates 25\n"
    "audio format = 44100 Hz, 16-bit integer, stereo\naudio buffer = 2048\nclock drift = -200 ppm\n"
    "clock jitter = 1 ms\nvideo fault = timescale 90000, every 1000\n"
    "[device]\nid = door\nname = Door\nmedia = video\nvideo format = 64x36 2vuy, rates 29.97\nclock jitter = 5 ms\n"
    "video fault = no image, every 500\nvideo fault = timescale 600, every 2500\n"
    "[device]\nid = deck\nname = Deck\nmedia = muxed\nvideo format = 64x36 mp2t, rates 30\n"
    "audio format = 44100 Hz, 16-bit integer, stereo\naudio buffer = 2048\nclock drift = 200 ppm\n";

constexpr double HostRate = 44100;

/// What the host receives of one source, and how far it is from what it should be.
struct Reception {
  const char* source;
  double audioTimescale;  ///< 0 for that of the pictures
  double rateError;       ///< of the device's clock
  double bufferSeconds;   ///< of sound

  std::uint64_t frames = 0, buffers = 0;
  double worstVideo = 0;   ///< seconds between a frame's stamp and when it was taken
  double worstAudio = 0;   ///< seconds between the end of a buffer by its stamp and when it was full
  double worstLength = 0;  ///< seconds of sound too many or too few since the start
  double start = 0;        ///< of the sound
  double end = -2;
  int starts = 0;
  bool isRegistered = false;
  std::uint64_t soundFrames = 0;
};

class LongRunTest : public FrameworkTest {
 protected:
  LongRunTest() {
    zThread::SetSleepFunction(SimulationScheduler::sleepFor);
    provider = rigs::install(Machine);
    self = this;
  }
  ~LongRunTest() override {
    self = nullptr;
    hardware::installSystemProvider(nullptr);
    provider.reset();
    zThread::SetSleepFunction(nullptr);
  }

  double now() { return static_cast<double>(scheduler.now() - epoch) / 1e9; }

  /// As a host does that is told of a change: whatever is not being received is registered.
  void registerMissing() {
    for (auto& reception : receptions) {
      const bool isThere = BRV_SourceSupportsProperty(nullptr, reception.source, "ProvidesVideo");
      if (std::exchange(reception.isRegistered, isThere) || !isThere) continue;
      BRV_RegisterVideoDataArrivedCallback(nullptr, reception.source, onVideo, &reception);
      BRV_RegisterAudioDataArrivedCallback(nullptr, reception.source, onAudio, &reception);
    }
  }

  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    auto& reception = *static_cast<Reception*>(context);
    const double timescale = BRV_GetTimescaleTicksPerSec(nullptr, reception.source);
    const double error = static_cast<double>(buffer->timeStamp) / timescale - self->now();
    // A stamp is as exact as its timescale.
    reception.worstVideo = std::max(reception.worstVideo, std::abs(error) - 0.5 / timescale);
    ++reception.frames;
  }

  static void onAudio(void* context, BRV_AudioBuffer* buffer) {
    auto& reception = *static_cast<Reception*>(context);
    const double timescale = reception.audioTimescale > 0 ? reception.audioTimescale
                                                          : BRV_GetTimescaleTicksPerSec(nullptr, reception.source);
    const int frames = buffer->dataLength / 4;
    const double end = static_cast<double>(buffer->timeStamp) / timescale + frames / HostRate;
    reception.worstAudio = std::max(reception.worstAudio, std::abs(end - self->now()));
    // Counted from the first buffer on, and from that behind a pause.
    const bool isFirst = end - reception.end > 1;
    if (isFirst) {
      reception.start = end;
      ++reception.starts;
    }
    reception.soundFrames = isFirst ? 0 : reception.soundFrames + static_cast<std::uint64_t>(frames);
    reception.end = end;
    const double length = static_cast<double>(reception.soundFrames) / HostRate / (1 + reception.rateError);
    reception.worstLength = std::max(reception.worstLength, std::abs(reception.start + length - self->now()));
    ++reception.buffers;
  }

  static void onState(void*, int) { self->registerMissing(); }

  static inline LongRunTest* self = nullptr;

  SimulationScheduler scheduler;
  const runtime::Nanoseconds epoch = scheduler.now();
  std::shared_ptr<hardware::simulated::Provider> provider;
  std::array<Reception, 4> receptions{{{"Webcam Video", 48000, 200e-6, 1024 / 48000.0},
                                       {"Pocket", 0, -200e-6, 2048 / HostRate},
                                       {"Door Video", 0, 0, 0},
                                       {"Deck", 0, 200e-6, 2048 / HostRate}}};
};

TEST_F(LongRunTest, ADayOfFourSourcesStaysRight) {
  const char* const wanted = std::getenv("SIMULATION_HOURS");
  const int minutes = wanted ? static_cast<int>(std::atof(wanted) * 60) : 12;
  const auto begin = std::chrono::steady_clock::now();
  BRV_IntitializeLibrary();
  BRV_RegisterLogCallback(nullptr, nullptr, nullptr);
  BRV_RegisterDeviceStateChangedCallback(nullptr, onState, this);
  registerMissing();
  const auto deck = provider->device("deck");

  std::size_t usedAtFirst = 0;
  for (int minute = 0; minute < minutes; ++minute) {
    runMainLoop(60);
    // Everything but the deck goes and comes back, the halves of the pair one by one.
    static constexpr std::array<const char*, 4> ids{"cam", "pocket", "mic", "door"};
    const char* const id = ids[static_cast<std::size_t>(minute / 2) % ids.size()];
    EXPECT_TRUE(minute % 2 == 0 ? provider->unplug(id) : provider->plug(id));
    if (minute == minutes / 10) usedAtFirst = mallinfo2().uordblks;
  }
  const auto growth = static_cast<std::int64_t>(mallinfo2().uordblks - usedAtFirst);
  BRV_UninitializeLibrary();

  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  std::printf("%.1f h simulated in %.1f s, %d hot-plugs, memory grew by %lld bytes\n", minutes / 60.0, seconds, minutes,
              static_cast<long long>(growth));
  for (const Reception& reception : receptions) {
    std::printf("  %-12s %9llu frames, %9llu buffers; off by at most %.3f ms, sound %.3f ms, its length %.3f ms\n",
                reception.source, static_cast<unsigned long long>(reception.frames),
                static_cast<unsigned long long>(reception.buffers), reception.worstVideo * 1e3,
                reception.worstAudio * 1e3, reception.worstLength * 1e3);
    EXPECT_GT(reception.frames, 0u) << reception.source;
    EXPECT_LT(reception.worstVideo, 1 / 30000.0) << reception.source;
    if (reception.bufferSeconds == 0) continue;
    EXPECT_GT(reception.buffers, 0u) << reception.source;
    EXPECT_LT(reception.worstAudio, reception.bufferSeconds) << reception.source;
    EXPECT_LT(reception.worstLength, reception.bufferSeconds) << reception.source;
  }
  EXPECT_EQ(deck->capturedVideo(), receptions[3].frames) << "it loses none and never goes";
  EXPECT_EQ(receptions[3].starts, 1);
  EXPECT_LT(growth, 1 << 18);
}

}  // namespace
}  // namespace test

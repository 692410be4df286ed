// What runs in real time: a frame every 2 ms from a camera's thread to the host's callback, by several ways; and eight
// cameras of 1920 x 1080 at 60 frames a second to a host that counts, for as long as BENCH_SECONDS says.

#include <benchmark/benchmark.h>
#include <simulated/RigParser.h>
#include <simulated/SimulatedProvider.h>
#include <support/MainLoop.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "AVDeviceManager.h"
#include "AVLog.h"
#include "Clocks.h"
#include "Line.h"

namespace {

constexpr std::size_t FrameCount = 250;
constexpr std::int64_t FrameInterval = 2'000'000;

/// How long each frame took. Written by the line's thread alone while the line exists.
struct Latencies {
  std::vector<std::int64_t> values;

  Latencies() { values.reserve(FrameCount); }

  static void arrived(void* context, std::int64_t captureTime) {
    static_cast<Latencies*>(context)->values.push_back(bench::now() - captureTime);
  }

  double median() {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return static_cast<double>(*middle);
  }
};

void sleepUntil(std::int64_t time) {
  const timespec until{time / 1'000'000'000, time % 1'000'000'000};
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

/// Manual time: the median of the latencies.
void measureLine(benchmark::State& state, const bench::LineKind& kind) {
  for (auto _ : state) {
    Latencies latencies;
    auto line = kind.make(Latencies::arrived, &latencies);
    const std::int64_t usedBefore = bench::processTime();
    std::int64_t due = bench::now();
    for (std::size_t frame = 0; frame < FrameCount; ++frame) {
      sleepUntil(due += FrameInterval);
      line->capture(bench::now());
    }
    sleepUntil(due + FrameInterval);
    const auto used = static_cast<double>(bench::processTime() - usedBefore);
    line.reset();
    if (latencies.values.empty()) {
      state.SkipWithError("no frame arrived");
      return;
    }
    state.SetIterationTime(latencies.median() / 1e9);
    state.counters["cpu_ns"] = used / FrameCount;
  }
}

std::shared_ptr<hardware::simulated::Provider> installCameras(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += "[device]\nid = " + std::to_string(i) +
            "\nname = Camera\nmedia = video\nvideo format = 1920x1080 yuvs, rates 60\npicture = test picture\n";
  }
  auto rig = hardware::simulated::parseRig(text, "eight cameras");
  auto provider = std::make_shared<hardware::simulated::Provider>(std::get<hardware::simulated::Rig>(std::move(rig)));
  hardware::installSystemProvider(provider);
  return provider;
}

using Count = std::atomic<std::uint64_t>;

void countFrame(void* context, BRV_VideoBuffer*) {
  ++*static_cast<Count*>(context);
}

void countReport(void* context, int, const char*, ...) {
  ++*static_cast<Count*>(context);
}

void measureCameras(benchmark::State& state) {
  constexpr int CameraCount = 8;
  const char* const wanted = std::getenv("BENCH_SECONDS");
  const double seconds = wanted ? std::atof(wanted) : 3;
  for (auto _ : state) {
    const auto provider = installCameras(CameraCount);
    Count delivered{0};
    Count reported{0};
    const std::unique_ptr<AV::DeviceManager> manager(AV::DeviceManager::instance());
    manager->detectDeviceConnect();
    // While the cameras run, dropped frames are all that is logged; and no report is ever suppressed.
    AV::setLog(countReport, &reported, 1 << 30, 1 << 29);
    for (int i = 0; i < CameraCount; ++i) {
      manager->getDeviceWithIndex(i)->setVideoDataArriveCallback(countFrame, &delivered);
    }
    manager->startAllDevices();

    const std::int64_t begin = bench::now();
    const std::int64_t usedBefore = bench::processTime();
    runMainLoop(seconds);
    const auto used = static_cast<double>(bench::processTime() - usedBefore);
    const auto passed = static_cast<double>(bench::now() - begin);
    manager->stopAllDevices();

    std::uint64_t captured = 0;
    for (int i = 0; i < CameraCount; ++i) captured += provider->device(std::to_string(i))->capturedVideo();
    state.SetIterationTime(passed / 1e9);
    state.counters["share"] = used / passed;
    state.counters["captured"] = static_cast<double>(captured);
    state.counters["dropped"] = static_cast<double>(reported);
    state.counters["unreported"] = static_cast<double>(captured) - static_cast<double>(delivered + reported);
    AV::setLog(nullptr, nullptr, 0, 0);
    hardware::installSystemProvider(nullptr);
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const bench::LineKind& kind : bench::lineKinds()) {
    benchmark::RegisterBenchmark(("camera thread to host/" + kind.who).c_str(),
                                 [&kind](benchmark::State& state) { measureLine(state, kind); })
        ->UseManualTime()
        ->Iterations(1);
  }
  benchmark::RegisterBenchmark("eight cameras/ours", measureCameras)->UseManualTime()->Iterations(1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

// Live capture from a camera through a PipeWire server of its own, by the module and by GStreamer: what the capturing
// process costs, and how old a frame is when it comes to the callback. BENCH_SECONDS tells how long each capture is
// watched.
//
// They take turns: two at once would compete for the processors at the very moment at which a frame wakes both.

#include <benchmark/benchmark.h>
#include <pipewire/Server.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

using test::pipewire::Server;

struct Capture {
  std::string name;
  std::string program;
  std::string camera;
  std::string more;  ///< arguments
};

const std::vector<Capture> captures = {
    {"live YUYV/ours", "live_host", "YUYV", ""},
    {"live YUYV/GStreamer", "live_gstreamer", "YUYV", "''"},
    {"live YUYV/GStreamer, copied", "live_gstreamer", "YUYV", "'' copy"},
    {"live Motion JPEG/ours", "live_host", "Motion JPEG", ""},
    {"live Motion JPEG/GStreamer", "live_gstreamer", "Motion JPEG", "'jpegdec ! videoconvert !'"},
};

std::string timesFile() {
  return Server::file("times");
}

/// What the program says of its capture, by name; empty when it fails.
std::map<std::string, double> figuresOf(const Capture& capture) {
  const char* const wanted = std::getenv("BENCH_SECONDS");
  const int frames = 30 * (wanted ? std::atoi(wanted) : 3);
  const std::string command = "timeout " + std::to_string(frames / 30 + 20) + " " BENCH_PROGRAMS "/" + capture.program +
                              " '" + capture.camera + "' " + timesFile() + " " + std::to_string(frames) + " " +
                              capture.more;
  std::FILE* const pipe = popen(command.c_str(), "re");
  if (!pipe) return {};
  std::map<std::string, double> figures;
  char name[64];
  for (double value; std::fscanf(pipe, "%63s %lf", name, &value) == 2;) figures[name] = value;
  return pclose(pipe) == 0 ? figures : std::map<std::string, double>();
}

/// Manual time: the median age.
void measure(benchmark::State& state, const Capture& capture) {
  for (auto _ : state) {
    const std::map<std::string, double> figures = figuresOf(capture);
    if (figures.empty()) {
      state.SkipWithError("no frame arrived");
      return;
    }
    state.SetIterationTime(figures.at("age") / 1e9);
    for (const auto& [name, value] : figures) state.counters[name] = value;
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const Capture& capture : captures) {
    benchmark::RegisterBenchmark(capture.name.c_str(), [&capture](benchmark::State& state) { measure(state, capture); })
        ->UseManualTime()
        ->Iterations(1);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  Server::instance();
  const test::pipewire::Process cameras({BENCH_PROGRAMS "/live_camera", timesFile()});
  if (!test::pipewire::until([] { return std::filesystem::exists(timesFile()); })) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

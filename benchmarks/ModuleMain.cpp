// The built module, loaded, initialised, and its sources enumerated: each time in a new process, which has loaded
// nothing of ours before. The time is what that process spends computing.

#include <BRV_AVCapture.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "Clocks.h"

namespace {

constexpr int DemoSources = 6;

template <typename Function>
Function entryPoint(void* module, const char* name) {
  return reinterpret_cast<Function>(dlsym(module, name));
}

void ignoreLine(void*, int, const char*, ...) {}

/// Nanoseconds of computing; 0 when it failed.
std::int64_t enumerate() {
  static int context;
  const std::int64_t begin = bench::processTime();
  void* const module = dlopen(AVC_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  if (!module) return 0;
  entryPoint<BRV_IntitializeLibrary_Function>(module, "BRV_IntitializeLibrary")();
  entryPoint<BRV_RegisterLogCallback_Function>(module, "BRV_RegisterLogCallback")(nullptr, ignoreLine, &context);
  const int count = entryPoint<BRV_GetSourceCount_Function>(module, "BRV_GetSourceCount")();
  return count == DemoSources ? bench::processTime() - begin : 0;
}

std::int64_t enumerateInNewProcess() {
  int ends[2];
  if (pipe(ends) != 0) return 0;
  const pid_t child = fork();
  if (child == 0) {
    const std::int64_t time = enumerate();
    _exit(write(ends[1], &time, sizeof time) == sizeof time ? 0 : 1);
  }
  close(ends[1]);
  std::int64_t time = 0;
  if (child < 0 || read(ends[0], &time, sizeof time) != sizeof time) time = 0;
  close(ends[0]);
  if (child > 0) waitpid(child, nullptr, 0);
  return time;
}

void loadModule(benchmark::State& state) {
  for (auto _ : state) {
    const std::int64_t time = enumerateInNewProcess();
    if (time == 0) {
      state.SkipWithError("the demonstration's sources were not found");
      return;
    }
    state.SetIterationTime(static_cast<double>(time) / 1e9);
  }
}

}  // namespace

int main(int argc, char** argv) {
  setenv("CAPTURE_RIG", "demo", 1);
  benchmark::RegisterBenchmark("module loaded/ours", loadModule)->UseManualTime()->Iterations(1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

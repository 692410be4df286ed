// Times all work, as any Google Benchmark program does; or, as `bench_work --count-instructions [PATTERN]...` under
// callgrind with --collect-atstart=no, writes a dump for each piece of work, and a line with its name and the number of
// its items. `--portable` in front of either keeps the converter from using AVX2 where the processor has it.

#include <AudioToolbox/Converter/InstructionSet.h>
#include <benchmark/benchmark.h>
#include <fnmatch.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "Work.h"

namespace {

class Timing final : public bench::Meter {
 public:
  explicit Timing(benchmark::State& state) : _state(state) {}
  void pause() override { _state.PauseTiming(); }
  void resume() override { _state.ResumeTiming(); }

 private:
  benchmark::State& _state;
};

class Counting final : public bench::Meter {
 public:
  void pause() override { CALLGRIND_TOGGLE_COLLECT; }
  void resume() override { CALLGRIND_TOGGLE_COLLECT; }
};

void timeWork(benchmark::State& state, const bench::Work& work) {
  const bench::Run run = work.make();
  Timing timing(state);
  const auto batch = static_cast<benchmark::IterationCount>(work.batch);
  while (state.KeepRunningBatch(batch)) run(work.batch, timing);
  state.counters["items"] = work.itemsPerRun;
}

/// The first round fills caches and pools, so that the second shows the steady state and nothing of the start.
void countWork(const bench::Work& work) {
  const bench::Run run = work.make();
  Counting counting;
  counting.resume();
  run(work.batch, counting);
  counting.pause();
  CALLGRIND_ZERO_STATS;
  counting.resume();
  run(work.batch, counting);
  counting.pause();
  CALLGRIND_DUMP_STATS_AT(work.name.c_str());
  std::printf("%s %.17g\n", work.name.c_str(), static_cast<double>(work.batch) * work.itemsPerRun);
  std::fflush(stdout);
}

bool isWanted(const bench::Work& work, char** begin, char** end) {
  return begin == end ||
         std::any_of(begin, end, [&](const char* pattern) { return fnmatch(pattern, work.name.c_str(), 0) == 0; });
}

}  // namespace

int main(int argc, char** argv) {
  const auto takeOption = [&](std::string_view option) {
    if (argc < 2 || argv[1] != option) return false;
    argv[1] = argv[0];
    ++argv;
    --argc;
    return true;
  };
  if (takeOption("--portable")) AudioConversion::limitInstructions(AudioConversion::InstructionSet::Portable);
  if (takeOption("--count-instructions")) {
    for (const bench::Work& work : bench::works()) {
      if (isWanted(work, argv + 1, argv + argc)) countWork(work);
    }
    return 0;
  }

  for (const bench::Work& work : bench::works()) {
    benchmark::RegisterBenchmark(work.name.c_str(), [&work](benchmark::State& state) { timeWork(state, work); });
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

#include "Take.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "../AllocationHook.h"
#include "../Clocks.h"

namespace bench {
namespace {

constexpr std::size_t WarmUp = 30;

/// The clock of a thread of this process, as pthread_getcpuclockid makes it of a handle.
clockid_t clockOf(int thread) {
  constexpr int perThread = 4, scheduled = 2;
  return static_cast<clockid_t>(~static_cast<unsigned>(thread) << 3 | perThread | scheduled);
}

}  // namespace

std::vector<Take::Thread> Take::threads() {
  std::vector<Thread> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const int id = std::atoi(entry.path().filename().c_str());
    std::string name;
    std::getline(std::ifstream(entry.path() / "comm"), name);
    threads.push_back({id, name, nanoseconds(clockOf(id))});
  }
  return threads;
}

Take::Usage Take::Usage::now() {
  rusage resources{};
  getrusage(RUSAGE_SELF, &resources);
  return {bench::now(), processTime(), allocationCount(), resources.ru_nvcsw + resources.ru_nivcsw,
          resources.ru_minflt};
}

Take::Take(char** arguments)
    : _times(pictureTimes(arguments[0])), _count(static_cast<std::size_t>(std::atoi(arguments[1]))) {
  _ages.reserve(_count);
}

void Take::frame(const std::uint8_t* pixels, std::size_t rowBytes, std::int64_t arrival) {
  if (_isDone) return;
  ++_frames;
  if (_frames <= WarmUp) {
    if (_frames < WarmUp) return;
    _threadsAtBegin = threads();
    _begin = Usage::now();
    return;
  }
  _ages.push_back(arrival - _times[numberIn(pixels, rowBytes)]);
  if (_ages.size() < _count) return;
  _end = Usage::now();
  _threadsAtEnd = threads();
  _isDone = true;
  _isDone.notify_all();
}

void Take::print(const std::string& lane) const {
  const auto frames = static_cast<double>(_count);
  const auto passed = static_cast<double>(_end.time - _begin.time);
  const auto line = [](const char* name, double value) { std::printf("%s %.17g\n", name, value); };
  std::vector<std::int64_t> ages = _ages;
  std::sort(ages.begin(), ages.end());
  line("age", static_cast<double>(ages[ages.size() / 2]));
  line("p99", static_cast<double>(ages[ages.size() * 99 / 100]));
  line("cpu_ns", static_cast<double>(_end.computing - _begin.computing) / frames);
  line("share", static_cast<double>(_end.computing - _begin.computing) / passed);
  line("allocations", static_cast<double>(_end.allocations - _begin.allocations));
  line("switches", static_cast<double>(_end.switches - _begin.switches) / frames);
  line("faults", static_cast<double>(_end.faults - _begin.faults) / frames);
  line("rate", frames * 1e9 / passed);
  double ofLane = 0;
  for (const Thread& thread : _threadsAtEnd) {
    const auto before = std::find_if(_threadsAtBegin.begin(), _threadsAtBegin.end(),
                                     [&thread](const Thread& other) { return other.id == thread.id; });
    const auto used = static_cast<double>(thread.time - (before == _threadsAtBegin.end() ? 0 : before->time));
    if (thread.name == lane) ofLane += used;
    if (std::getenv("LIVE_THREADS")) std::fprintf(stderr, "%10.0f ns %s\n", used / frames, thread.name.c_str());
  }
  line("lane_share", ofLane / passed);
}

}  // namespace bench

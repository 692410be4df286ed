#include <fcntl.h>
#include <gtest/gtest.h>
#include <runtime/NSObject.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unordered_set>

#include "Choosers.h"
#include "Studio.h"

// Every order, up to a bound, in which a host, the devices and the main thread can meet, and random longer runs.
//
// From the environment: SIMULATION_RUNS, how many runs a test makes at most (0: as many as there are); SIMULATION_SEED,
// that of the first random run; SIMULATION_PART and SIMULATION_PARTS, the share of one process of several in every
// order; SIMULATION_CHOICES, the one run to make instead; SIMULATION_STEPS, whether to tell what happens.

namespace test {
namespace {

std::uint64_t number(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

/// What a run has to give back.
struct Resources {
  std::int64_t objects = NSObject::liveObjectCount();
  std::int64_t lanes = runtime::liveLaneCount();
  int firstFreeDescriptor = [] {
    const int descriptor = open("/dev/null", O_RDONLY);
    close(descriptor);
    return descriptor;
  }();

  friend bool operator==(const Resources&, const Resources&) = default;
};

/// Makes runs, counts the different ones, and tells how to repeat the one in which the program dies.
class Explorer {
 public:
  explicit Explorer(std::string name) : _name(std::move(name)) {
    for (const int signal : {SIGABRT, SIGSEGV}) std::signal(signal, onSignal);
    // What is made once in a process is made now.
    RandomOrder chooser(0);
    Studio(chooser, {.hostActions = 0, .cameraActions = 0, .plugActions = 0}).run();
    describing = this;
  }
  ~Explorer() {
    describing = nullptr;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    std::printf("%s: %llu runs, %zu distinct interleavings, %.1f s\n", _name.c_str(),
                static_cast<unsigned long long>(_runs), _distinct.size(), seconds);
  }

  void run(Chooser& chooser, const Plan& plan, std::function<std::string()> describe) {
    _describe = std::move(describe);
    const Resources before;
    _distinct.insert(Studio(chooser, plan).run());
    ++_runs;
    if (Resources{} == before) return;
    std::fprintf(stderr, "something is left of the run\n");
    std::abort();
  }

 private:
  static void onSignal(int signal) {
    if (describing) std::fprintf(stderr, "%s: %s\n", describing->_name.c_str(), describing->_describe().c_str());
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }

  static inline Explorer* describing = nullptr;

  const std::string _name;
  std::function<std::string()> _describe = [] { return "the first run of all"; };
  std::uint64_t _runs = 0;
  std::unordered_set<std::uint64_t> _distinct;
  const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

struct Bound {
  const char* name;
  Plan plan;
  int interruptions = 0;  ///< of a line that is about to lock a mutex
};

const Bound Bounds[] = {
    {"OneOfEach", {.hostActions = 1, .cameraActions = 1, .plugActions = 1}},
    {"TwoOfTheHost", {.hostActions = 2, .cameraActions = 1, .plugActions = 1}},
    {"TwoSamples", {.hostActions = 1, .cameraActions = 2, .plugActions = 1}},
    {"TwoPlugs", {.hostActions = 1, .cameraActions = 1, .plugActions = 2}},
    {"HostOnTheMainThread", {.hostActions = 3, .cameraActions = 1, .plugActions = 1, .hostIsMainThread = true}},
    {"MainQueueThread", {.hostActions = 2, .cameraActions = 1, .plugActions = 1, .hasMainQueueThread = true}},
    {"OneInterruption", {.hostActions = 1, .cameraActions = 1, .plugActions = 1}, 1},
    {"CallbackAsks", {.hostActions = 1, .plugActions = 1, .callbackAction = CallbackAction::Asks}},
    {"CallbackUnregistersItself", {.hostActions = 1, .callbackAction = CallbackAction::UnregistersItself}},
    {"CallbackRegistersAnew", {.hostActions = 1, .callbackAction = CallbackAction::RegistersAnew}},
    {"CallbackUnregistersTheOther", {.hostActions = 1, .callbackAction = CallbackAction::UnregistersTheOther}},
    {"CallbackDisconnectsAll", {.hostActions = 1, .callbackAction = CallbackAction::DisconnectsAll}},
};

class EveryOrderTest : public testing::TestWithParam<Bound> {};

TEST_P(EveryOrderTest, KeepsWhatMustHold) {
  const auto& [name, plan, interruptions] = GetParam();
  const char* const only = std::getenv("SIMULATION_CHOICES");
  EveryOrder order =
      only ? EveryOrder(only) : EveryOrder(interruptions, number("SIMULATION_PART", 0), number("SIMULATION_PARTS", 1));
  Explorer explorer(name);
  std::uint64_t left = only ? 1 : number("SIMULATION_RUNS", 1000);
  do {
    explorer.run(order, plan, [&order] { return "repeat with SIMULATION_CHOICES=" + order.description(); });
  } while (--left > 0 && order.next());
}

INSTANTIATE_TEST_SUITE_P(Explorer, EveryOrderTest, testing::ValuesIn(Bounds),
                         [](const auto& each) { return each.param.name; });

TEST(RandomOrderTest, KeepsWhatMustHold) {
  Explorer explorer("Random");
  const std::uint64_t first = number("SIMULATION_SEED", 1);
  const std::uint64_t end = first + number("SIMULATION_RUNS", 10000);
  for (std::uint64_t seed = first; seed < end; ++seed) {
    RandomOrder chooser(seed);
    Plan plan{.hostActions = 8, .cameraActions = 8, .plugActions = 6};
    plan.hostIsMainThread = chooser.choose(2) == 0;
    plan.hasMainQueueThread = chooser.choose(2) == 0;
    plan.hasCamcorder = chooser.choose(2) == 0;
    plan.callbackAction = static_cast<CallbackAction>(chooser.choose(6));
    const auto describe = [seed] { return "repeat with SIMULATION_RUNS=1 SIMULATION_SEED=" + std::to_string(seed); };
    explorer.run(chooser, plan, describe);
  }
}

}  // namespace
}  // namespace test

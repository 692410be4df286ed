#include <Foundation/NSObject.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <unordered_set>

#include "Choosers.h"
#include "Studio.h"

// Every order, up to a bound, in which a host, the devices and the main thread can meet, and random longer runs.

namespace test {
namespace {

std::uint64_t number(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

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

/// Runs studios, and says how to repeat the one in which something goes wrong, crashes included.
class Explorer {
 public:
  explicit Explorer(std::string name) : _name(std::move(name)) { describing = this; }
  ~Explorer() { describing = nullptr; }

  void run(Chooser& chooser, const Plan& plan, std::function<std::string()> describe) {
    _describe = std::move(describe);
    const Resources before;
    std::uint64_t trace;
    {
      Studio studio(chooser, plan);
      trace = studio.run();
    }
    EXPECT_EQ(Resources{}, before) << "something is left of a run";
    ++_runs;
    _distinct.insert(trace);
    if (testing::Test::HasFailure()) say();
  }

  void summarise() const {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    std::printf("%s: %llu runs, %zu distinct interleavings, %.1f s\n", _name.c_str(),
                static_cast<unsigned long long>(_runs), _distinct.size(), seconds);
  }

  static void onSignal(int signal) {
    if (describing) describing->say();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }

 private:
  void say() const { std::fprintf(stderr, "%s: repeat with %s\n", _name.c_str(), _describe().c_str()); }

  static inline Explorer* describing = nullptr;

  const std::string _name;
  std::function<std::string()> _describe;
  std::uint64_t _runs = 0;
  std::unordered_set<std::uint64_t> _distinct;
  const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

class ExplorerTest : public testing::Test {
 protected:
  ExplorerTest() {
    for (const int signal : {SIGABRT, SIGSEGV}) std::signal(signal, Explorer::onSignal);
    // What is made once in a process is made now.
    RandomOrder chooser(0);
    Studio(chooser, {.hostActions = 0, .cameraActions = 0, .plugActions = 0}).run();
  }

  void everyOrder(const std::string& name, const Plan& plan, int interruptions, std::uint64_t most) {
    Explorer explorer(name);
    EveryOrder order(interruptions, number("SIMULATION_PART", 0), number("SIMULATION_PARTS", 1));
    std::uint64_t runs = 0;
    do {
      explorer.run(order, plan, [&] { return "SIMULATION_CHOICES=" + order.description(); });
    } while (!HasFailure() && ++runs < most && order.next());
    explorer.summarise();
  }
};

TEST_F(ExplorerTest, EveryOrder) {
  everyOrder("pair", {.hostActions = 2, .cameraActions = 1, .plugActions = 1}, 0, number("SIMULATION_RUNS", 20000));
}

TEST_F(ExplorerTest, RandomOrders) {
  Explorer explorer("random");
  const std::uint64_t runs = number("SIMULATION_RUNS", 5000);
  std::uint64_t seed = number("SIMULATION_SEED", 1);
  for (std::uint64_t i = 0; i < runs && !HasFailure(); ++i, ++seed) {
    RandomOrder chooser(seed);
    Plan plan{.hostActions = 8, .cameraActions = 8, .plugActions = 6};
    plan.hostIsMainThread = chooser.choose(2) == 0;
    plan.hasCamcorder = chooser.choose(2) == 0;
    plan.callbackAction = static_cast<CallbackAction>(chooser.choose(6));
    explorer.run(chooser, plan, [&] { return "SIMULATION_RUNS=1 SIMULATION_SEED=" + std::to_string(seed); });
  }
  explorer.summarise();
}

}  // namespace
}  // namespace test

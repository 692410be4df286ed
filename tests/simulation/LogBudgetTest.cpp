#include <gtest/gtest.h>
#include <lumora/zThread.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "BRV_AVCapture.h"
#include "common/LogCondenser.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/MainLoop.h"
#include "support/Rigs.h"
#include "support/SimulationScheduler.h"

// What each fault that lasts writes to the log in a day: what the module lets through, and what brvhost tells of it.

namespace test {
namespace {

constexpr const char* Camera = "[device]\nid = c\nname = Camera\nmedia = video\nvideo format = 16x16 2vuy, rates 30\n";

struct LastingFault {
  const char* name;
  std::string rig;  ///< empty: a camera that loses a hundred frames at a time
  double stepSeconds = 60;
  bool flaps = false, keepsBuffers = false;
};
void PrintTo(const LastingFault& fault, std::ostream* out) {
  *out << fault.name;
}

/// The camera says, each ten seconds of an hour after its start, that it cannot go on.
std::string failures() {
  std::string text;
  for (int at = 5; at < 3'600; at += 10)
    text += "running failure = It stalls., at " + std::to_string(at) + " s, for 3 s\n";
  return text;
}

struct Amount {
  std::size_t lines = 0, bytes = 0;
  void add(std::string_view line) { ++lines, bytes += line.size() + 1; }
};

class LogBudgetTest : public FrameworkTest, public testing::WithParamInterface<LastingFault> {
 protected:
  LogBudgetTest() { zThread::SetSleepFunction(SimulationScheduler::sleepFor); }
  ~LogBudgetTest() override {
    hardware::installSystemProvider(nullptr);
    zThread::SetSleepFunction(nullptr);
  }

  static void onLog(void* context, int, const char* format, ...) {
    auto& self = *static_cast<LogBudgetTest*>(context);
    char line[1'024];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    self.module.add(line);
    self.condenser.line(4, line, self.time());
  }
  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<LogBudgetTest*>(context);
    if (GetParam().keepsBuffers)
      self.kept.push_back(CFRef<CVPixelBufferRef>::retain(static_cast<CVPixelBufferRef>(buffer->data)));
  }

  void registerData() { BRV_RegisterVideoDataArrivedCallback(nullptr, "Camera Video", onVideo, this); }
  brvhost::LogCondenser::Clock::time_point time() {
    return brvhost::LogCondenser::Clock::time_point(std::chrono::nanoseconds(scheduler.now()));
  }

  SimulationScheduler scheduler;
  Amount module, host;
  brvhost::LogCondenser condenser{[this](int, std::string_view line) { host.add(line); }};
  std::vector<CFRef<CVPixelBufferRef>> kept;
};

TEST_P(LogBudgetTest, ALastingFaultFillsNoDisk) {
  const LastingFault& fault = GetParam();
  const char* const wanted = std::getenv("SIMULATION_HOURS");
  const double hours = wanted ? std::atof(wanted) : 0.1;
  const auto camera = fake::camera("Camera", "c");
  std::shared_ptr<hardware::simulated::Provider> provider;
  if (fault.rig.empty()) {
    fake::install({camera});
  } else {
    provider = rigs::install(fault.rig);
  }
  BRV_IntitializeLibrary();
  BRV_RegisterLogCallback(nullptr, onLog, this);
  registerData();

  std::int64_t ticks = 0;
  bool isThere = true;
  for (double seconds = 0; seconds < hours * 3'600; seconds += fault.stepSeconds) {
    if (!provider) {
      for (int i = 0; i < 100; ++i) camera->loseFrame(CMTimeMake(++ticks, 30));
    }
    if (std::fmod(seconds, 3'600) == 0) {  // the rig's failures last an hour from a start
      BRV_RegisterVideoDataArrivedCallback(nullptr, "Camera Video", nullptr, nullptr);
      registerData();
    }
    if (fault.flaps) isThere = !isThere, isThere ? provider->plug("c") : provider->unplug("c");
    runMainLoop(fault.stepSeconds);
    if (fault.flaps && isThere) registerData();
    condenser.look(time());
  }
  BRV_UninitializeLibrary();
  condenser.finish();
  kept.clear();

  const double days = hours / 24, megabyte = 1 << 20;
  const auto each = [&](const Amount& amount) {
    std::printf(" %9.0f lines %7.2f MB", static_cast<double>(amount.lines) / days,
                static_cast<double>(amount.bytes) / days / megabyte);
  };
  std::printf("log of a day: %-42s", fault.name);
  each(module);
  std::printf(", brvhost");
  each(host);
  std::printf("\n");
  EXPECT_LT(static_cast<double>(host.bytes) * 10 / hours, megabyte) << "of a night";
  // The worst that the module's rule lets through: a burst that is forgotten when the next one begins.
  EXPECT_LT(static_cast<double>(module.bytes) / days, 80 * megabyte);
}

INSTANTIATE_TEST_SUITE_P(Faults, LogBudgetTest,
                         testing::Values(LastingFault{"a hundred frames lost each 6 s", "", 6},
                                         LastingFault{"every second frame lost",
                                                      std::string(Camera) + "video fault = lost frame, every 2\n"},
                                         LastingFault{"pictures that cannot be decoded",
                                                      std::string(Camera) + "video fault = undecodable, every 1\n"},
                                         LastingFault{"invalid time stamps",
                                                      std::string(Camera) + "video fault = invalid time, every 1\n"},
                                         LastingFault{"stalls for 3 s each 10 s", Camera + failures()},
                                         LastingFault{"pulled and plugged each 6 s", Camera, 3, true},
                                         LastingFault{"the same, and it cannot be opened",
                                                      std::string(Camera) + "open failure = It is in use.\n", 3, true},
                                         LastingFault{"a host that keeps every buffer", Camera, 60, false, true}));

}  // namespace
}  // namespace test

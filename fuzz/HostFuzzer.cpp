// Rigs, and whatever a host may do with the machines that they describe, while devices capture, fail, come and go: a
// rig file, and below it the steps of a script.

#include <simulated/RigParser.h>

#include <algorithm>
#include <sstream>

#include "Machine.h"
#include "simulation/ScriptedHost.h"

namespace {

using hardware::simulated::Rig;

constexpr double LongestRun = 0.05;  // seconds
constexpr std::size_t LongestStep = 200;

/// A run of it costs no more than a few pictures.
bool isSmall(const Rig& rig) {
  return rig.devices.size() <= 4 && std::ranges::all_of(rig.devices, [](const auto& device) {
           return std::ranges::all_of(device.description.videoFormats,
                                      [](const auto& format) { return format.width <= 320 && format.height <= 240; });
         });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(text.find("\n> "), text.size());
  auto parsed = hardware::simulated::parseRig(text.substr(0, end), "input.rig");
  if (const auto* error = std::get_if<hardware::simulated::RigError>(&parsed)) {
    fuzz::require(error->line >= 0 && !error->reason.empty());
    return 0;
  }
  Rig rig = std::get<Rig>(std::move(parsed));
  if (!isSmall(rig)) return 0;
  const fuzz::Machine machine(nullptr);
  test::ScriptedHost host(std::move(rig), LongestRun);
  std::istringstream steps(text.substr(end));
  int made = 0;
  for (std::string step; made < 100 && std::getline(steps, step);) {
    if (!step.starts_with("> ") || step.size() > LongestStep) continue;
    host.make(step.substr(2));
    ++made;
  }
  return 0;
}

// Which provider the machine has: the one that a test installed, or one made from the environment's rig.

#include <Hardware.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "DemoRig.h"
#include "RigParser.h"
#include "SimulatedProvider.h"

namespace hardware {
namespace {

struct SystemState {
  std::mutex mutex;
  std::shared_ptr<Provider> installed;
  std::shared_ptr<Provider> own;
  std::function<void()> changeHandler;
};

SystemState& state() {
  // Never destroyed: capture may go on, and ask, until the very end of the process.
  static auto* const state = new SystemState;
  return *state;
}

/// The machine of a rig that cannot be read.
class UnknownMachine final : public Provider {
 public:
  bool canListDevices() override { return false; }
  std::vector<std::shared_ptr<Device>> devices() override { return {}; }
  void setEventHandler(EventHandler) override {}
  FireWireBus fireWireBus() override { return {0, std::vector<FireWireUnit>()}; }
};

std::shared_ptr<Provider> environmentProvider() {
  // Whoever starts a program with more rights than his own does not choose the files that it reads.
  const char* path = secure_getenv("CAPTURE_RIG");
  auto rig = path && *path ? simulated::loadRig(path) : simulated::parseRig(simulated::demoRigText(), "demo rig");
  if (const auto* error = std::get_if<simulated::RigError>(&rig)) {
    std::fprintf(stderr, "%s\n", error->message().c_str());
    return std::make_shared<UnknownMachine>();
  }
  return std::make_shared<simulated::Provider>(std::get<simulated::Rig>(std::move(rig)));
}

}  // namespace

std::shared_ptr<Provider> systemProvider() {
  std::lock_guard lock(state().mutex);
  if (state().installed) return state().installed;
  if (!state().own) state().own = environmentProvider();
  return state().own;
}

void installSystemProvider(std::shared_ptr<Provider> provider) {
  std::function<void()> handler;
  {
    std::lock_guard lock(state().mutex);
    std::swap(state().installed, provider);
    handler = state().changeHandler;
  }
  if (handler) handler();
}

void setProviderChangeHandler(std::function<void()> handler) {
  std::lock_guard lock(state().mutex);
  state().changeHandler = std::move(handler);
}

}  // namespace hardware

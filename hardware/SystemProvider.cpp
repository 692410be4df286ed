// Which provider the machine has: the one that a test installed, or the one that the environment asks for.

#include <Hardware.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

#include "pipewire/PipeWire.h"
#include "simulated/DemoRig.h"
#include "simulated/RigParser.h"
#include "simulated/SimulatedProvider.h"

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

/// A machine of which nothing can be found out, which has been reported on standard error.
class UnknownMachine final : public Provider {
 public:
  explicit UnknownMachine(std::string origin) : _origin(std::move(origin)) {}

  bool canListDevices() override { return false; }
  std::vector<std::shared_ptr<Device>> devices() override { return {}; }
  void setEventHandler(EventHandler) override {}
  FireWireBus fireWireBus() override { return {0, std::vector<FireWireUnit>()}; }
  std::string origin() override { return _origin; }

 private:
  const std::string _origin;
};

std::shared_ptr<Provider> simulatedProvider(std::variant<simulated::Rig, simulated::RigError> rig, std::string origin) {
  if (const auto* error = std::get_if<simulated::RigError>(&rig)) {
    std::fprintf(stderr, "%s\n", error->message().c_str());
    return std::make_shared<UnknownMachine>(origin + ", which has an error");
  }
  return std::make_shared<simulated::Provider>(std::get<simulated::Rig>(std::move(rig)), std::move(origin));
}

/// In front of the name of a library that lies beside this one; empty when this one has no path.
std::string libraryFolder() {
  Dl_info self{};
  dladdr(reinterpret_cast<const void*>(&systemProvider), &self);
  const std::string_view path = self.dli_fname ? self.dli_fname : "";
  return std::string(path.substr(0, path.rfind('/') + 1));
}

/// Why the library with PipeWire's provider is not there, for people.
std::string reasonWithoutPipeWire(const std::string& file, const char* loadError) {
  if (access(file.c_str(), F_OK) == 0) return loadError ? loadError : file + " cannot be used";
  return HAS_PIPEWIRE ? file + " is missing" : "this build has no support for PipeWire";
}

/// Whoever captures nothing real does without PipeWire's libraries.
std::shared_ptr<Provider> pipeWireProvider() {
  const std::string file = libraryFolder() + pipewire::LibraryName;
  void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  void* const found = library ? dlsym(library, pipewire::MakeProviderName) : nullptr;
  if (!found) {
    const std::string reason = reasonWithoutPipeWire(file, dlerror());
    std::fprintf(stderr,
                 "No cameras or microphones: %s. CAPTURE_RIG=demo (brvhost --rig demo) shows the demonstration.\n",
                 reason.c_str());
    return std::make_shared<UnknownMachine>("nowhere: " + reason + " (--rig demo shows the demonstration)");
  }
  std::shared_ptr<Provider> provider;
  reinterpret_cast<pipewire::MakeProvider*>(found)(provider);
  return provider;
}

std::shared_ptr<Provider> environmentProvider() {
  // Whoever starts a program with more rights than his own does not choose the files that it reads.
  const char* variable = secure_getenv("CAPTURE_RIG");
  const std::string_view rig = variable ? variable : "";
  if (rig.empty()) return pipeWireProvider();
  if (rig == "demo")
    return simulatedProvider(simulated::parseRig(simulated::demoRigText(), "demo rig"), "the demonstration");
  return simulatedProvider(simulated::loadRig(std::string(rig)), "rig " + std::string(rig));
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

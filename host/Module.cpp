#include "Module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "Failure.h"

namespace brvhost {

namespace {

constexpr const char* ModuleName = "AVCaptureDevice.so";

/// Looks entry points up and remembers which ones were not there.
class Lookup {
 public:
  explicit Lookup(void* handle) : _handle(handle) {}

  template <typename Function>
  void find(const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(_handle, name));
    if (function != nullptr) return;
    _missing += _missing.empty() ? name : std::string(", ") + name;
  }

  const std::string& missing() const { return _missing; }

 private:
  void* _handle;
  std::string _missing;
};

std::string findEntryPoints(void* handle, EntryPoints& table) {
  Lookup lookup(handle);
  lookup.find("BRV_IntitializeLibrary", table.intitializeLibrary);
  lookup.find("BRV_UninitializeLibrary", table.uninitializeLibrary);
  lookup.find("BRV_RegisterLocalizeStringCallback", table.registerLocalizeStringCallback);
  lookup.find("BRV_RegisterLogCallback", table.registerLogCallback);
  lookup.find("BRV_RegisterDeviceStateChangedCallback", table.registerDeviceStateChangedCallback);
  lookup.find("BRV_DisconnectDevice", table.disconnectDevice);
  lookup.find("BRV_GetDeviceGroupDisplayName", table.getDeviceGroupDisplayName);
  lookup.find("BRV_GetSourceCount", table.getSourceCount);
  lookup.find("BRV_GetSourceId", table.getSourceId);
  lookup.find("BRV_GetErrorMessage", table.getErrorMessage);
  lookup.find("BRV_RegisterVideoDataArrivedCallback", table.registerVideoDataArrivedCallback);
  lookup.find("BRV_RegisterAudioDataArrivedCallback", table.registerAudioDataArrivedCallback);
  lookup.find("BRV_SourceSupportsProperty", table.sourceSupportsProperty);
  lookup.find("BRV_GetProperty", table.getProperty);
  lookup.find("BRV_GetTimescaleTicksPerSec", table.getTimescaleTicksPerSec);
  lookup.find("BRV_QueryParameterOptions", table.queryParameterOptions);
  lookup.find("BRV_GetSourceSettings", table.getSourceSettings);
  lookup.find("BRV_SetSourceSettings", table.setSourceSettings);
  return lookup.missing();
}

std::filesystem::path directoryOfThisProgram() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

}  // namespace

Module::Module(const std::string& path) {
  // dlopen searches the system's directories for a name without a slash; here a path is always meant.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  _handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (_handle == nullptr) throw Failure(std::string("cannot load the module: ") + ::dlerror());

  const std::string missing = findEntryPoints(_handle, _entryPoints);
  if (missing.empty()) return;
  ::dlclose(_handle);
  throw Failure(path + " is not a capture-source module: it lacks " + missing);
}

Module::~Module() {
  ::dlclose(_handle);
}

std::string Module::locate(const std::string& option, const char* environment) {
  if (!option.empty()) return option;
  if (environment != nullptr && *environment != '\0') return environment;

  const std::filesystem::path directory = directoryOfThisProgram();
  std::string tried;
  for (const char* relative : {"../lib", "../" BRVHOST_LIBDIR, "."}) {
    const std::filesystem::path candidate = (directory / relative / ModuleName).lexically_normal();
    std::error_code error;
    if (std::filesystem::exists(candidate, error)) return candidate.string();
    tried += (tried.empty() ? "" : ", ") + candidate.string();
  }
  throw Failure("no module found (looked for " + tried + "); name one with --module or BRV_MODULE");
}

}  // namespace brvhost

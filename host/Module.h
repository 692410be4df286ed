#pragma once

// The capture-source module, loaded, and its entry points.

#include <AVCaptureDevice/BRV_AVCapture.h>

#include <string>
#include <vector>

namespace brvhost {

/// What this host calls, one pointer an entry point, none of them null.
struct EntryPoints {
  BRV_IntitializeLibrary_Function intitializeLibrary = nullptr;
  BRV_UninitializeLibrary_Function uninitializeLibrary = nullptr;
  BRV_RegisterLocalizeStringCallback_Function registerLocalizeStringCallback = nullptr;
  BRV_RegisterLogCallback_Function registerLogCallback = nullptr;
  BRV_RegisterDeviceStateChangedCallback_Function registerDeviceStateChangedCallback = nullptr;
  BRV_DisconnectDevice_Function disconnectDevice = nullptr;
  BRV_GetDeviceGroupDisplayName_Function getDeviceGroupDisplayName = nullptr;
  BRV_GetSourceCount_Function getSourceCount = nullptr;
  BRV_GetSourceId_Function getSourceId = nullptr;
  BRV_GetErrorMessage_Function getErrorMessage = nullptr;
  BRV_RegisterVideoDataArrivedCallback_Function registerVideoDataArrivedCallback = nullptr;
  BRV_RegisterAudioDataArrivedCallback_Function registerAudioDataArrivedCallback = nullptr;
  BRV_SourceSupportsProperty_Function sourceSupportsProperty = nullptr;
  BRV_GetProperty_Function getProperty = nullptr;
  BRV_GetTimescaleTicksPerSec_Function getTimescaleTicksPerSec = nullptr;
  BRV_QueryParameterOptions_Function queryParameterOptions = nullptr;
  BRV_GetSourceSettings_Function getSourceSettings = nullptr;
  BRV_SetSourceSettings_Function setSourceSettings = nullptr;
};

class Module {
 public:
  /// Loads the module. Throws Failure with the loader's reason, or with the names of the entry points that it lacks.
  explicit Module(const std::string& path);
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  const EntryPoints* operator->() const { return &_entryPoints; }

  /// Where the module is: `option` if not empty, else `environment` if not null or empty, else the first file that
  /// exists in the places where a build and an installation put it, seen from the directory of this program. Throws
  /// Failure.
  static std::string locate(const std::string& option, const char* environment);

 private:
  void* _handle = nullptr;
  EntryPoints _entryPoints;
};

}  // namespace brvhost

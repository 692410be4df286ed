#include "support/LoadedModule.h"

#include <dlfcn.h>

#include <cstdarg>
#include <map>
#include <mutex>

LoadedModule::LoadedModule() : _handle(dlopen(AVC_MODULE_PATH, RTLD_NOW | RTLD_LOCAL)) {
  if (!_handle) ADD_FAILURE() << dlerror();
}

LoadedModule::~LoadedModule() {
  if (_handle) dlclose(_handle);
}

void* LoadedModule::symbol(const char* name) const {
  void* const found = dlsym(_handle, name);
  EXPECT_NE(found, nullptr) << name;
  return found;
}

struct Host::Received {
  std::mutex lock;
  std::map<std::string, int> messages;
  std::vector<int> states;
};

Host::Host() : _received(new Received) {
  BRV_CALL(module, BRV_IntitializeLibrary)();
  BRV_CALL(module, BRV_RegisterLogCallback)(nullptr, log, _received);
  const auto changed = [](void* context, int state) {
    auto* received = static_cast<Received*>(context);
    std::lock_guard lock(received->lock);
    received->states.push_back(state);
  };
  BRV_CALL(module, BRV_RegisterDeviceStateChangedCallback)(nullptr, changed, _received);
}

Host::~Host() {
  uninitialize();
  delete _received;
}

void Host::uninitialize() {
  if (_isInitialized) BRV_CALL(module, BRV_UninitializeLibrary)();
  _isInitialized = false;
}

void Host::log(void* context, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  static_cast<void>(va_arg(arguments, const char*));
  const std::string message = va_arg(arguments, const char*);
  va_end(arguments);
  auto* received = static_cast<Received*>(context);
  std::lock_guard lock(received->lock);
  ++received->messages[message];
}

int Host::logged(const std::string& message) const {
  std::lock_guard lock(_received->lock);
  const auto found = _received->messages.find(message);
  return found == _received->messages.end() ? 0 : found->second;
}

std::vector<int> Host::states() const {
  std::lock_guard lock(_received->lock);
  return _received->states;
}

std::vector<std::string> Host::sources() const {
  std::vector<std::string> found;
  const int count = BRV_CALL(module, BRV_GetSourceCount)();
  for (int i = 0; i < count; ++i) {
    found.push_back(text(BRV_CALL(module, BRV_GetSourceId), static_cast<void*>(nullptr), i));
  }
  return found;
}

bool Host::has(const std::string& source, const char* property) const {
  return BRV_CALL(module, BRV_SourceSupportsProperty)(nullptr, source.c_str(), property) == 1;
}

int Host::timescale(const std::string& source) const {
  return BRV_CALL(module, BRV_GetTimescaleTicksPerSec)(nullptr, source.c_str());
}

Host::Property Host::property(const std::string& source, const char* name) const {
  Property property;
  const auto receive = [](void* context, int type, const void* value) {
    auto& received = *static_cast<Property*>(context);
    if (type == BRV_PROPERTY_INT64) received.number = *static_cast<const std::int64_t*>(value);
    if (type == BRV_PROPERTY_STRING) received.text = static_cast<const char*>(value);
  };
  const int result = BRV_CALL(module, BRV_GetProperty)(&property, receive, name, "", source.c_str());
  EXPECT_EQ(result, property.number == -77 ? 0 : 1) << "a text is handed over with 0, a number with 1";
  return property;
}

std::string Host::errorMessage(int code) const {
  return text(BRV_CALL(module, BRV_GetErrorMessage), static_cast<void*>(nullptr), static_cast<void*>(nullptr), code);
}

void Host::registerVideo(const std::string& source, BRV_VideoDataArrivedCallback callback, void* context) const {
  BRV_CALL(module, BRV_RegisterVideoDataArrivedCallback)(nullptr, source.c_str(), callback, context);
}

void Host::registerAudio(const std::string& source, BRV_AudioDataArrivedCallback callback, void* context) const {
  BRV_CALL(module, BRV_RegisterAudioDataArrivedCallback)(nullptr, source.c_str(), callback, context);
}

void Host::disconnect() const {
  BRV_CALL(module, BRV_DisconnectDevice)();
}

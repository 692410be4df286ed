#include "support/LoadedModule.h"

#include <dlfcn.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <brv.hpp>

#include <cstdarg>
#include <cstdlib>
#include <string_view>

LoadedModule::LoadedModule() : _handle(dlopen(AVC_MODULE_PATH, RTLD_NOW | RTLD_LOCAL)) {
  setenv("CAPTURE_RIG", "demo", 1);
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

Host::Host() {
  zThread::SetSleepFunction([](unsigned) {});
  zTrace::Default().SetSink([](const char*) {});
  BRV_CALL(module, BRV_IntitializeLibrary)();
  BRV_CALL(module, BRV_RegisterLogCallback)(nullptr, log, this);
}

Host::~Host() {
  uninitialize();
  zTrace::Default().SetSink({});
  zThread::SetSleepFunction(nullptr);
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
  auto* host = static_cast<Host*>(context);
  std::lock_guard lock(host->_logLock);
  ++host->_messages[message];
}

int Host::logged(const std::string& message) const {
  std::lock_guard lock(_logLock);
  const auto found = _messages.find(message);
  return found == _messages.end() ? 0 : found->second;
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
  const bool hasCome = property.number != -77 || property.text != "none";
  EXPECT_EQ(result, hasCome && std::string_view(name) != "device_id" ? 1 : 0);
  return property;
}

std::map<std::string, std::int64_t> Host::account(const std::string& source, const char* medium) const {
  const auto written = property(source, (std::string(medium) + "_account").c_str()).text;
  std::map<std::string, std::int64_t> counts;
  std::int64_t ended = 0;
  for (const brv::Field& field : brv::fieldsOf(written)) {
    if (field.name.empty()) continue;
    const bool isOfFrames = field.record == "frames";
    const std::int64_t count = counts[(isOfFrames ? "frames " : "") + field.name] = std::stoll(field.value);
    EXPECT_GE(count, 0) << written;
    if (!isOfFrames && field.name != "captured") ended += count;
  }
  EXPECT_EQ(counts["captured"], ended) << written;
  EXPECT_EQ(counts["frames captured"], counts["frames dropped"] + counts["frames converted"]) << written;
  EXPECT_EQ(counts["frames produced"],
            counts["frames delivered"] + counts["frames undelivered"] + counts["frames pending"])
      << written;
  return counts;
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

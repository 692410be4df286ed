#include "Session.h"

#include <CoreFoundation/CFRunLoop.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Failure.h"
#include "SourceMatch.h"
#include "Translations.h"

namespace brvhost {

namespace {

/// The module asks that its property argument "required" be anything but null.
constexpr int Required = 0;

extern "C" const char* localize(const char* key) {
  return translated(key);
}

extern "C" void printLog(void* context, int, const char* format, ...) {
  char text[1024];  // a place and a message of at most 511 bytes; longer ones are cut
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length >= 0) static_cast<Console*>(context)->line(text);
}

extern "C" void storeInteger(void* context, int valueType, const void* value) {
  if (valueType == BRV_PROPERTY_INT64) std::memcpy(context, value, sizeof(std::int64_t));
}

extern "C" void storeString(void* context, int valueType, const void* value) {
  if (valueType != BRV_PROPERTY_STRING) return;
  try {
    *static_cast<std::string*>(context) = static_cast<const char*>(value);
  } catch (...) {
    // Without memory for it the text stays empty.
  }
}

/// Runs both calls for a text; `call` takes the buffer and the length.
template <typename Call>
std::string textOf(Call&& call) {
  int length = 0;
  call(nullptr, &length);
  if (length <= 0) return {};
  std::string text(static_cast<std::size_t>(length), '\0');
  call(text.data(), &length);  // the terminator falls on the string's own
  text.resize(std::strlen(text.c_str()));
  return text;
}

/// Reads a record from the module, which writes no terminator behind it. `call(buffer, length)` makes one call of the
/// two-call convention.
template <typename Call>
std::string recordOf(Call&& call) {
  int length = 0;
  call(nullptr, &length);
  if (length <= 0) return {};
  std::string record(static_cast<std::size_t>(length), '\0');
  call(record.data(), &length);
  return record;
}

}  // namespace

const char* Source::kind() const {
  if (providesVideo) return providesAudio ? "video+audio" : "video";
  return providesAudio ? "audio" : "no media";
}

std::string unpluggedText(const Source& source) {
  return source.identifier + " was unplugged";
}

Session::Session(Module& module, Console* console, const std::string& language) : _module(module) {
  _module->registerLocalizeStringCallback(localize);
  _module->intitializeLibrary();
  _module->registerDeviceStateChangedCallback(nullptr, deviceStateChanged, this);
  _module->registerLogCallback(nullptr, printLog, console);
  pump(0);
  _groupName =
      textOf([&](char* buffer, int* length) { _module->getDeviceGroupDisplayName(language.c_str(), buffer, length); });
}

Session::~Session() {
  disconnect();
  _module->uninitializeLibrary();
}

std::vector<Source> Session::sources() const {
  std::vector<Source> found;
  const int count = _module->getSourceCount();
  for (int index = 0; index < count; ++index) {
    Source source;
    source.identifier = identifierAt(index);
    const char* const identifier = source.identifier.c_str();
    const auto supports = [&](const char* name) {
      return _module->sourceSupportsProperty(nullptr, identifier, name) != 0;
    };
    source.providesVideo = supports("ProvidesVideo");
    source.providesAudio = supports("ProvidesAudio");
    source.isHDV = supports("HDV");
    _module->getProperty(&source.deviceId, storeString, "device_id", &Required, identifier);
    found.push_back(std::move(source));
  }
  return found;
}

Source Session::find(const std::string& wanted) const {
  std::vector<Source> known = sources();
  std::vector<std::string> identifiers;
  identifiers.reserve(known.size());
  for (const Source& source : known) identifiers.push_back(source.identifier);
  const std::vector<std::size_t> matches = matchSource(identifiers, wanted);
  if (matches.size() == 1) return std::move(known[matches.front()]);

  std::string message = "\"" + wanted;
  if (known.empty()) throw UsageError(message + "\" is no source; there are none");
  message += matches.empty() ? "\" is no source; there are:" : "\" fits several sources:";
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    const bool isListed = matches.empty() || std::find(matches.begin(), matches.end(), i) != matches.end();
    if (isListed) message += formatted("\n  %zu  ", i) + identifiers[i];
  }
  throw UsageError(message);
}

std::string Session::identifierAt(int index) const {
  return textOf([&](char* buffer, int* length) { _module->getSourceId(nullptr, index, buffer, length); });
}

std::optional<int> Session::indexOf(const Source& source) const {
  const int count = _module->getSourceCount();
  for (int index = 0; index < count; ++index) {
    if (identifierAt(index) == source.identifier) return index;
  }
  return std::nullopt;
}

void Session::requirePluggedIn(const Source& source) const {
  if (!isPluggedIn(source)) throw Failure(unpluggedText(source));
}

FrameTiming Session::timing(const std::string& identifier) const {
  FrameTiming timing;
  timing.ticksPerSecond = _module->getTimescaleTicksPerSec(nullptr, identifier.c_str());
  _module->getProperty(&timing.frameDuration, storeInteger, "frame_duration", &Required, identifier.c_str());
  return timing;
}

Session::Drops Session::drops(const Source& source, const char* medium) const {
  std::string text;
  const std::string name = std::string(medium) + "_account";
  _module->getProperty(&text, storeString, name.c_str(), &Required, source.identifier.c_str());
  zRecord account;
  Drops drops;
  if (zXML::ParseBuffer(zXML::Mode, &account, text.c_str(), -1) != zXML::Success) return drops;
  for (const char* reason : {"late", "no_buffer", "lost_by_device", "not_converted", "invalid_time", "stopped"}) {
    drops[reason] = std::atoll(account.AsCString(reason, "0", nullptr));
  }
  return drops;
}

std::string Session::provider() const {
  std::string provider;
  _module->getProperty(&provider, storeString, "provider", &Required, _groupName.c_str());
  return provider;
}

std::vector<Session::UnofferedDevice> Session::unofferedDevices() const {
  std::string text;
  _module->getProperty(&text, storeString, "unoffered_devices", &Required, _groupName.c_str());
  zRecord record;
  std::vector<UnofferedDevice> devices;
  if (zXML::ParseBuffer(zXML::Mode, &record, text.c_str(), -1) != zXML::Success) return devices;
  for (unsigned i = 0; i < record.ChildCount(); ++i) {
    const zRecord& device = *record.Child(i);
    devices.push_back({device.AsCString("name", "", nullptr), device.AsCString("reason", "", nullptr)});
  }
  return devices;
}

std::string Session::parameterOptions(const Source& source, const char* parameter) const {
  return recordOf([&](char* buffer, int* length) {
    _module->queryParameterOptions(nullptr, source.identifier.c_str(), parameter, buffer, length);
  });
}

std::string Session::settings(const Source& source) const {
  return recordOf([&](char* buffer, int* length) {
    _module->getSourceSettings(nullptr, source.identifier.c_str(), buffer, length);
  });
}

int Session::setSettings(const Source& source, const std::string& record) {
  const int answer = _module->setSourceSettings(nullptr, source.identifier.c_str(), record.c_str());
  pump(0);
  return answer;
}

std::string Session::errorMessage(int code) const {
  return textOf([&](char* buffer, int* length) { _module->getErrorMessage(nullptr, nullptr, code, buffer, length); });
}

std::string Session::takeError(const Source& source) const {
  constexpr int OfNoSource = 1;  // brings up the last message again
  const auto index = indexOf(source);
  if (!index) return {};
  const std::string former = errorMessage(OfNoSource);
  std::string message = errorMessage(-*index);
  return message == former ? std::string() : message;
}

void Session::registerCallbacks(const Source& source, BRV_VideoDataArrivedCallback video,
                                BRV_AudioDataArrivedCallback audio, void* context) const {
  const char* const identifier = source.identifier.c_str();
  if (source.providesVideo) _module->registerVideoDataArrivedCallback(nullptr, identifier, video, context);
  if (source.providesAudio) _module->registerAudioDataArrivedCallback(nullptr, identifier, audio, context);
  pump(0);
}

void Session::startAgain(const Source& source, BRV_VideoDataArrivedCallback video, BRV_AudioDataArrivedCallback audio,
                         void* context) const {
  // Either registration starts the whole source; a second one would restart it.
  const char* const identifier = source.identifier.c_str();
  if (source.providesVideo) {
    _module->registerVideoDataArrivedCallback(nullptr, identifier, video, context);
  } else {
    _module->registerAudioDataArrivedCallback(nullptr, identifier, audio, context);
  }
  pump(0);
}

void Session::disconnect() const {
  _module->disconnectDevice();
  pump(0);
}

void Session::stop(const Source& source) noexcept {
  registerCallbacks(source, nullptr, nullptr, nullptr);
}

void Session::pump(double seconds) noexcept {
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, seconds, false);
}

std::vector<int> Session::takeDeviceChanges() {
  return std::exchange(_deviceChanges, {});
}

void Session::deviceStateChanged(void* context, int state) {
  try {
    static_cast<Session*>(context)->_deviceChanges.push_back(state);
  } catch (...) {
    // Out of memory: the next change brings the list up to date.
  }
}

}  // namespace brvhost

// The module's entry points: they validate, look up, and forward. Each is one guarded body, so that nothing throws into
// the host.

#include "BRV_AVCapture.h"

#include <lumora/zString.h>
#include <lumora/zXML.h>

#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "AVDeviceManager.h"
#include "AVGuard.h"
#include "AVLog.h"
#include "AVSettings.h"
#include "common/CommonSDK.h"

using AV::guarded;

namespace {

constexpr std::int32_t MaximumLogCount = 400;
constexpr std::int32_t MinimumLogCount = 100;

/// The manager between initialisation and uninitialisation. Entry points that come outside that time find no source.
AV::DeviceManager* g_pDeviceManager = nullptr;

using Source = std::shared_ptr<AV::Device>;

Source findSource(const char* sourceId) {
  return g_pDeviceManager && sourceId ? g_pDeviceManager->getDeviceWithName(sourceId) : nullptr;
}

/// Does `work`, in which a source starts. What keeps it from starting is noted by the source, and thrown on.
template <typename Work>
void startNotingFailures(AV::Device& source, Work&& work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    source.noteFailure("Starting", "Out of memory.");
    throw;
  } catch (const std::exception& failure) {
    source.noteFailure("Starting", failure.what());
    throw;
  }
}

/// One call of the two-call convention for text.
void exchangeText(const char* text, char* buffer, int* length) {
  if (buffer) {
    std::strcpy(buffer, text);
  } else if (length) {
    *length = static_cast<int>(std::strlen(text));
  }
}

/// The text that identifies, names and describes the device group.
const char* groupText() {
  const char* text = CSDK::TranslateString("p_source_systemdevice");
  return text ? text : "";
}

std::string sourceIdAt(int index) {
  const Source source = g_pDeviceManager ? g_pDeviceManager->getDeviceWithIndex(index) : nullptr;
  return source ? source->getDeviceName() : std::string();
}

/// The source that a negated index stands for. The most negative code has no positive counterpart, and no source.
Source sourceOfError(int errorCode) {
  const bool isIndex = errorCode <= 0 && errorCode != std::numeric_limits<int>::min();
  return g_pDeviceManager && isIndex ? g_pDeviceManager->getDeviceWithIndex(-errorCode) : nullptr;
}

/// Hands a property's value to the host: 1 when there is one.
class Teller {
 public:
  Teller(BRV_PropertyCallback callback, void* context) : _callback(callback), _context(context) {}

  int tell(std::int64_t value) const { return tell(BRV_PROPERTY_INT64, &value); }
  int tell(const std::string& text) const { return tell(BRV_PROPERTY_STRING, text.c_str()); }
  int tell(const zRecord& record) const {
    AV::RecordText written;
    return written.write(record) ? tell(BRV_PROPERTY_STRING, written.text()) : 0;
  }

 private:
  int tell(int type, const void* value) const {
    if (_callback) _callback(_context, type, value);
    return 1;
  }

  const BRV_PropertyCallback _callback;
  void* const _context;
};

/// The properties of the device group; 1 when there is one of that name.
int tellOfGroup(const char* propertyName, const Teller& teller) {
  if (zString::string_equal(propertyName, "provider")) return teller.tell(AVCaptureDevice::devicesOrigin());
  if (zString::string_equal(propertyName, "unoffered_devices"))
    return teller.tell(*AV::makeUnofferedRecord(*g_pDeviceManager));
  return 0;
}

/// The properties of a source that return 1 when they have a value.
int tellOfSource(const AV::Device& source, const char* propertyName, const Teller& teller) {
  const auto asks = [&](const char* name) { return zString::string_equal(propertyName, name); };
  if (asks("frame_duration")) return teller.tell(source.getDeviceFrameDuration());
  if (asks("provider")) return teller.tell(AVCaptureDevice::devicesOrigin());
  if (asks("error")) {
    const std::string error = source.pendingError();
    return error.empty() ? 0 : teller.tell(error);
  }
  if (source.hasVideoStream()) {
    if (asks("video_device_id")) return teller.tell(source.getVideoDeviceID());
    if (asks("video_account")) return teller.tell(*AV::makeAccountRecord(source.videoAccount(), false));
  }
  if (source.hasAudioStream()) {
    if (asks("audio_device_id")) return teller.tell(source.getAudioDeviceID());
    if (asks("audio_timescale")) return teller.tell(std::int64_t{source.getAudioTimescale()});
    if (asks("audio_account")) return teller.tell(*AV::makeAccountRecord(source.audioAccount(), true));
  }
  return 0;
}

}  // namespace

extern "C" {

int BRV_IntitializeLibrary(void) {
  guarded([] {
    AV::DeviceManager::initialize();
    g_pDeviceManager = AV::DeviceManager::instance();
    if (!CSDK::CommonSDKVariables::_instance) CSDK::CommonSDKVariables::initialize();
  });
  return 1;
}

void BRV_UninitializeLibrary(void) {
  guarded([] {
    delete g_pDeviceManager;
    g_pDeviceManager = nullptr;
    AV::setLog(nullptr, nullptr, 0, 0);
    CSDK::uninitialize();
  });
}

void BRV_RegisterLocalizeStringCallback(BRV_LocalizeStringCallback callback) {
  guarded([=] {
    if (!CSDK::CommonSDKVariables::_instance) CSDK::CommonSDKVariables::initialize();
    auto& services = *CSDK::CommonSDKVariables::_instance;
    std::lock_guard lock(services._translateLock);
    services._localizeCallback = callback;
  });
}

void BRV_RegisterPreferenceCallback(BRV_GetPreferenceCallback get, BRV_SetPreferenceCallback set, void* context) {
  guarded([=] {
    if (!CSDK::CommonSDKVariables::_instance) CSDK::CommonSDKVariables::initialize();
    auto& services = *CSDK::CommonSDKVariables::_instance;
    std::lock_guard lock(services._prefsLock);
    services._getPrefsCallback = get;
    services._setPrefsCallback = set;
    services._prefsContext = context;
  });
}

void BRV_RegisterLogCallback(void*, BRV_LogCallback callback, void* context) {
  guarded([=] { AV::setLog(callback, context, MaximumLogCount, MinimumLogCount); });
  guarded([] {
    if (g_pDeviceManager) g_pDeviceManager->detectDeviceConnect();
  });
}

void BRV_RegisterDeviceStateChangedCallback(void*, BRV_DeviceStateChangedCallback callback, void* context) {
  guarded([=] {
    if (g_pDeviceManager) g_pDeviceManager->setStateChangeCallback(callback, context);
  });
}

void BRV_RegisterSourceChangedCallback(void*, const char* sourceId, BRV_SourceChangedCallback callback, void* context) {
  guarded([=] {
    if (const Source source = findSource(sourceId)) source->setSourceChangeCallback(callback, context);
  });
}

void BRV_GetModelInfo(void*, char* buffer, int* length) {
  guarded([=] {
    const char* text = groupText();
    if (length) *length = static_cast<int>(std::strlen(text));
    if (buffer) std::strcpy(buffer, text);
  });
}

int BRV_ConnectDevice(void) {
  return 1;
}

void BRV_DisconnectDevice(void) {
  guarded([] {
    if (g_pDeviceManager) g_pDeviceManager->stopAllDevices();
  });
}

int BRV_GetDeviceState(void) {
  return BRV_DEVICE_STATE;
}

void BRV_GetDeviceGroupDisplayName(const char* languageCode, char* buffer, int* length) {
  guarded([=] {
    exchangeText(groupText(), buffer, length);
    if (buffer && g_pDeviceManager) g_pDeviceManager->setLanguageCode(languageCode ? languageCode : "");
  });
}

int BRV_GetDeviceCount(void) {
  return 1;
}

void BRV_GetDeviceId(void*, char* buffer, int* length) {
  guarded([=] { exchangeText(groupText(), buffer, length); });
}

int BRV_GetSourceCount(void) {
  return guarded(0, [] { return g_pDeviceManager ? g_pDeviceManager->getDeviceCount() : 0; });
}

void BRV_GetSourceId(void*, int index, char* buffer, int* length) {
  guarded([=] {
    exchangeText("", buffer, length);  // what stands where memory runs out
    exchangeText(sourceIdAt(index).c_str(), buffer, length);
  });
}

void BRV_GetSourceDisplayName(void*, const char* sourceId, void*, char* buffer, int* length) {
  guarded([=] { exchangeText(sourceId ? sourceId : "", buffer, length); });
}

int BRV_GetSourceState(void) {
  return BRV_SOURCE_STATE;
}

void BRV_GetErrorMessage(void*, void*, int errorCode, char* buffer, int* length) {
  guarded([=] {
    static std::string errorString;
    if (!buffer && length) {
      if (const Source source = sourceOfError(errorCode)) source->getErrorString(errorString);
    }
    exchangeText(errorString.c_str(), buffer, length);
  });
}

void BRV_DeleteString(char* string) {
  delete[] string;
}

int BRV_ShowCustomConfigDialog(void) {
  return 0;
}

void BRV_RegisterVideoDataArrivedCallback(void*, const char* sourceId, BRV_VideoDataArrivedCallback callback,
                                          void* context) {
  guarded([=] {
    const Source source = findSource(sourceId);
    if (!source) return;
    startNotingFailures(*source, [&] {
      source->stopDevice();
      source->setVideoDataArriveCallback(callback, context);
      if (callback && context) source->startDevice();
    });
  });
}

void BRV_RegisterAudioDataArrivedCallback(void*, const char* sourceId, BRV_AudioDataArrivedCallback callback,
                                          void* context) {
  guarded([=] {
    const Source source = findSource(sourceId);
    if (!source) return;
    startNotingFailures(*source, [&] {
      source->stopDevice();
      source->setAudioDataArrivedCallback(callback, context);
      if (callback && context) source->startDevice();
    });
  });
}

int BRV_SourceSupportsProperty(void*, const char* sourceId, const char* propertyName) {
  return guarded(0, [=] {
    const Source source = findSource(sourceId);
    if (!source) return 0;
    if (zString::string_equal(propertyName, "ProvidesVideo")) return source->hasVideoStream() ? 1 : 0;
    if (zString::string_equal(propertyName, "ProvidesAudio")) return source->hasAudioStream() ? 1 : 0;
    if (zString::string_equal(propertyName, "HDV")) return source->isHDV() ? 1 : 0;
    return 0;
  });
}

int BRV_GetProperty(void* context, BRV_PropertyCallback callback, const char* propertyName, const void* required,
                    const char* sourceId) {
  return guarded(0, [=] {
    if (!required || !sourceId) return 0;
    const Teller teller(callback, context);
    if (g_pDeviceManager && zString::string_equal(sourceId, groupText())) return tellOfGroup(propertyName, teller);
    const Source source = findSource(sourceId);
    if (!source) return 0;
    if (zString::string_equal(propertyName, "device_id")) {
      teller.tell(source->hasAudioStream() ? source->getAudioDeviceID() : source->getVideoDeviceID());
      return 0;
    }
    return tellOfSource(*source, propertyName, teller);
  });
}

int BRV_GetTimescaleTicksPerSec(void*, const char* sourceId) {
  return guarded(-1, [=] {
    const Source source = findSource(sourceId);
    return source ? source->getDeviceTimescale() : -1;
  });
}

void BRV_QueryParameterOptions(void*, const char* sourceId, const char* parameterName, char* buffer, int* length) {
  guarded([=] {
    static AV::RecordText xmlBuffer;
    const Source source = findSource(sourceId);
    if (!length) return;
    if (buffer) {
      if (!source) xmlBuffer.blank();
      xmlBuffer.moveTo(buffer, *length);
      return;
    }
    xmlBuffer.clear();
    if (!source) return;
    *length = 0;
    const auto record = AV::makeOptionsRecord(*source, parameterName, g_pDeviceManager->getLanguageCode());
    if (xmlBuffer.write(*record)) {
      *length = xmlBuffer.length();
    } else {
      AV_LOG(AV::LevelOther, "Failed to Write Settings Record to XML\n");
    }
  });
}

void BRV_GetSourceSettings(void*, const char* sourceId, char* buffer, int* length) {
  guarded([=] {
    static AV::RecordText xmlBuffer;
    if (!length) return;
    if (buffer) {
      xmlBuffer.moveTo(buffer, *length);
      return;
    }
    *length = 0;
    const Source source = findSource(sourceId);
    if (!source) return;
    if (xmlBuffer.write(*AV::makeSettingsRecord(*source))) {
      *length = xmlBuffer.length();
    } else {
      AV_LOG(AV::LevelOther, "Failed to Write Settings Record to XML\n");
    }
  });
}

int BRV_SetSourceSettings(void*, const char* sourceId, const char* settingsText) {
  return guarded(1, [=] {
    const Source source = findSource(sourceId);
    if (!source) return 1;
    return guarded(AV::failureOf(*g_pDeviceManager, *source), [&] {
      startNotingFailures(*source, [&] { source->startDevice(); });
      zRecord settings;
      if (!settingsText || zXML::ParseBuffer(zXML::Mode, &settings, settingsText, -1) != zXML::Success) return 1;
      return AV::applySettings(*g_pDeviceManager, *source, settings);
    });
  });
}

int BRV_GetValidParameterValues(void*, const char* sourceId, char* buffer, int* length) {
  return guarded(0, [=] {
    static AV::RecordText xmlBuffer;
    const Source source = findSource(sourceId);
    if (buffer || !source) {
      if (buffer && length) xmlBuffer.moveTo(buffer, *length);
      xmlBuffer.clear();
      return 0;
    }
    if (length && xmlBuffer.write(*AV::makeValidValuesRecord(*source))) *length = xmlBuffer.length();
    return 0;
  });
}

}  // extern "C"

#include "common/CommonSDK.h"

#include <cstdlib>

namespace CSDK {

CommonSDKVariables* CommonSDKVariables::_instance = nullptr;
std::uint64_t CommonSDKVariables::_initCount = 0;

void CommonSDKVariables::initialize() {
  if (_instance) {
    ++_initCount;
  } else {
    _instance = new CommonSDKVariables;
  }
}

bool CommonSDKVariables::isPreferencesRegistered() {
  std::lock_guard lock(_prefsLock);
  return _getPrefsCallback && _setPrefsCallback && _prefsContext;
}

void initialize() {
  CommonSDKVariables::initialize();
}

bool isInitialized() {
  return CommonSDKVariables::_instance != nullptr;
}

void uninitialize() {
  if (CommonSDKVariables::_initCount > 0) {
    --CommonSDKVariables::_initCount;
    return;
  }
  CommonSDKVariables* state = CommonSDKVariables::_instance;
  if (!state) return;
  {
    std::lock_guard lock(state->_translateLock);
    state->_localizeCallback = nullptr;
  }
  {
    std::lock_guard lock(state->_prefsLock);
    state->_getPrefsCallback = nullptr;
    state->_setPrefsCallback = nullptr;
    state->_prefsContext = nullptr;
  }
  delete state;
  CommonSDKVariables::_instance = nullptr;
}

const char* TranslateString(const char* key) {
  CommonSDKVariables* state = CommonSDKVariables::_instance;
  if (!state) return nullptr;
  std::lock_guard lock(state->_translateLock);
  return state->_localizeCallback ? state->_localizeCallback(key) : key;
}

std::string CopyTranslatedString(const char* key) {
  const char* const text = TranslateString(key);
  return text ? text : "";
}

bool isPreferencesRegistered() {
  return CommonSDKVariables::_instance && CommonSDKVariables::_instance->isPreferencesRegistered();
}

bool getPreferences(const char* key, char*& value, int* length) {
  CommonSDKVariables* state = CommonSDKVariables::_instance;
  if (!state) return false;
  std::lock_guard lock(state->_prefsLock);
  if (!state->isPreferencesRegistered()) return false;

  int count = 0;
  state->_getPrefsCallback(state->_prefsContext, key, nullptr, &count);
  if (count < 1) return false;
  auto* buffer = static_cast<char*>(std::calloc(static_cast<std::size_t>(count) + 1, 1));
  if (!buffer) return false;
  if (length) *length = count;
  state->_getPrefsCallback(state->_prefsContext, key, buffer, &count);
  value = buffer;
  return true;
}

bool setPreferences(const char* key, const char* value) {
  CommonSDKVariables* state = CommonSDKVariables::_instance;
  if (!state) return false;
  std::lock_guard lock(state->_prefsLock);
  if (!value || !state->isPreferencesRegistered()) return false;
  state->_setPrefsCallback(state->_prefsContext, key, value);
  return true;
}

bool removePreferences(const char*) {
  if (CommonSDKVariables* state = CommonSDKVariables::_instance) std::lock_guard lock(state->_prefsLock);
  return false;
}

}  // namespace CSDK

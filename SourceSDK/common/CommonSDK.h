#pragma once

// Services of the host that the source plug-ins share: translation of texts and a preference store. The host hands
// them over as callbacks, which it owns. Any thread may use them; creating and ending the state is left to the host's
// thread while nobody uses it.

#include <cstdint>
#include <mutex>
#include <string>

// As the plug-ins' headers, which this layer does not see, give them to hosts.
extern "C" {
typedef const char* (*BRV_LocalizeStringCallback)(const char* key);
typedef void (*BRV_GetPreferenceCallback)(void* context, const char* key, char* buffer, int* length);
typedef void (*BRV_SetPreferenceCallback)(void* context, const char* key, const char* value);
}

namespace CSDK {

/// The callbacks that the host registered. At most one instance exists.
class CommonSDKVariables {
 public:
  /// Creates the state, or counts one more user of the one that exists.
  static void initialize();

  /// True when both preference callbacks and their context are non-null.
  bool isPreferencesRegistered();

  /// Called with the lock held, which is recursive so that a callback may come back on its own thread.
  std::recursive_mutex _translateLock;
  BRV_LocalizeStringCallback _localizeCallback = nullptr;

  std::recursive_mutex _prefsLock;
  BRV_GetPreferenceCallback _getPrefsCallback = nullptr;
  BRV_SetPreferenceCallback _setPrefsCallback = nullptr;
  void* _prefsContext = nullptr;

  static CommonSDKVariables* _instance;
  /// Initialisations beyond the one that created the state.
  static std::uint64_t _initCount;
};

void initialize();
bool isInitialized();

/// Takes back one initialisation; the last one ends the state and forgets every callback.
void uninitialize();

/// The host's text for a key, or without a translation callback the key itself. The text belongs to the host: copy it
/// at once. Null when no state exists.
const char* TranslateString(const char* key);
/// The same, copied; empty when no state exists. Throws std::bad_alloc.
std::string CopyTranslatedString(const char* key);

bool isPreferencesRegistered();

/// Reads a preference. On success `value` points to the value and a terminating zero after it, which the caller
/// releases with free, and `*length` (may be null) is its length in bytes. False, with both untouched, when there is
/// no such value, the host has registered no preferences, or memory ran out.
bool getPreferences(const char* key, char*& value, int* length);

/// Writes a preference. False for a null value or when the host has registered no preferences.
bool setPreferences(const char* key, const char* value);

/// Hosts offer no removal: false in every case.
bool removePreferences(const char* key);

}  // namespace CSDK

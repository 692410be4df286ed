#include "common/CommonSDK.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

using State = CSDK::CommonSDKVariables;

TEST(HostServicesTest, TextsAreTranslatedUntilTheLastUserEndsTheLibrary) {
  for (int i = 0; i < 2; ++i) CSDK::initialize();
  State::_instance->_localizeCallback = [](const char*) { return "translated"; };
  CSDK::uninitialize();
  EXPECT_STREQ(CSDK::TranslateString("key"), "translated");
  for (int i = 0; i < 2; ++i) CSDK::uninitialize();
  EXPECT_EQ(CSDK::TranslateString("key"), nullptr);
}

TEST(HostServicesTest, PreferencesAreReadBackWithATerminator) {
  using Preferences = std::map<std::string, std::string>;
  Preferences preferences;
  CSDK::initialize();
  State::_instance->_setPrefsCallback = [](void* store, const char* key, const char* value) {
    (*static_cast<Preferences*>(store))[key] = value;
  };
  State::_instance->_getPrefsCallback = [](void* store, const char* key, char* buffer, int* length) {
    const std::string& value = (*static_cast<Preferences*>(store))[key];
    if (!buffer) *length = static_cast<int>(value.size());
    // A host may come back on its own thread.
    if (buffer && CSDK::isPreferencesRegistered()) std::memcpy(buffer, value.data(), value.size());
  };
  char* value = nullptr;
  int length = 0;

  State::_instance->_prefsContext = &preferences;
  EXPECT_TRUE(CSDK::setPreferences("size", "large"));
  ASSERT_TRUE(CSDK::getPreferences("size", value, &length));
  EXPECT_EQ(length, 5);
  EXPECT_STREQ(value, "large");
  std::free(value);
  CSDK::uninitialize();
}

}  // namespace

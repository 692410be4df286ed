#include "common/CommonSDK.h"

#include <gtest/gtest.h>

#include <cstdlib>
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

TEST(HostServicesTest, PreferencesAreKeptByTheHostThatHasRegisteredAllOfThem) {
  std::string kept;
  const auto get = [](void* context, const char*, char* buffer, int* length) {
    const auto& value = *static_cast<std::string*>(context);
    *length = static_cast<int>(value.size());
    if (buffer) value.copy(buffer, value.size());
  };
  const auto set = [](void* context, const char* key, const char* value) {
    *static_cast<std::string*>(context) = std::string(key) + value;
  };
  char* value = nullptr;
  int length = -1;
  for (int given = -1; given < 8; ++given) {  // none, some and all of them
    if (given == 0) CSDK::initialize();
    if (given > 0) {
      State::_instance->_getPrefsCallback = given & 1 ? get : BRV_GetPreferenceCallback();
      State::_instance->_setPrefsCallback = given & 2 ? set : BRV_SetPreferenceCallback();
      State::_instance->_prefsContext = given & 4 ? &kept : nullptr;
    }
    EXPECT_EQ(CSDK::isInitialized(), given >= 0);
    EXPECT_EQ(CSDK::isPreferencesRegistered(), given == 7);
    EXPECT_FALSE(CSDK::getPreferences("key", value, &length) || CSDK::setPreferences("key", nullptr));
    EXPECT_EQ(CSDK::setPreferences("k", ""), given == 7);
    EXPECT_FALSE(CSDK::removePreferences("k"));
  }
  EXPECT_TRUE(CSDK::getPreferences("key", value, &length) && length == 1);
  EXPECT_STREQ(value, "k");
  std::free(value);
  CSDK::uninitialize();
  EXPECT_FALSE(CSDK::isInitialized());
}

}  // namespace

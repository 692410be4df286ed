#include "common/CommonSDK.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

using State = CSDK::CommonSDKVariables;

class HostServicesTest : public testing::Test {
 protected:
  using Preferences = std::map<std::string, std::string>;

  HostServicesTest() { State::initialize(); }
  ~HostServicesTest() override {
    while (CSDK::isInitialized()) CSDK::uninitialize();
  }

  void registerPreferences(void* context) {
    State::_instance->_getPrefsCallback = [](void* store, const char* key, char* buffer, int* length) {
      const auto& values = *static_cast<Preferences*>(store);
      const auto value = values.find(key);
      if (value == values.end()) return;
      if (!buffer) *length = static_cast<int>(value->second.size());
      // A host may come back on its own thread.
      if (buffer && CSDK::isPreferencesRegistered()) std::memcpy(buffer, value->second.data(), value->second.size());
    };
    State::_instance->_setPrefsCallback = [](void* store, const char* key, const char* value) {
      (*static_cast<Preferences*>(store))[key] = value;
    };
    State::_instance->_prefsContext = context;
  }

  Preferences preferences;
};

TEST_F(HostServicesTest, TextsAreTranslatedWhileACallbackIsRegistered) {
  const char* key = "av_source_no_fps_settings";
  EXPECT_EQ(CSDK::TranslateString(key), key);
  State::_instance->_localizeCallback = [](const char*) { return "translated"; };
  EXPECT_STREQ(CSDK::TranslateString(key), "translated");

  CSDK::uninitialize();
  EXPECT_EQ(CSDK::TranslateString(key), nullptr);
}

TEST_F(HostServicesTest, PreferencesAreReadBackWithATerminatorAndNeedAContextAndAValue) {
  char* value = nullptr;
  int length = 77;
  registerPreferences(nullptr);
  EXPECT_FALSE(CSDK::isPreferencesRegistered());
  EXPECT_FALSE(CSDK::setPreferences("size", "large"));
  EXPECT_FALSE(CSDK::getPreferences("size", value, &length));
  registerPreferences(&preferences);
  EXPECT_FALSE(CSDK::setPreferences("size", nullptr));
  EXPECT_FALSE(CSDK::getPreferences("size", value, &length));
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(length, 77);

  EXPECT_TRUE(CSDK::setPreferences("size", "large"));
  ASSERT_TRUE(CSDK::getPreferences("size", value, &length));
  EXPECT_EQ(length, 5);
  EXPECT_STREQ(value, "large");
  std::free(value);
  EXPECT_FALSE(CSDK::removePreferences("size"));
}

TEST_F(HostServicesTest, TheLastUninitialisationEndsTheState) {
  State::initialize();
  CSDK::uninitialize();
  EXPECT_TRUE(CSDK::isInitialized());
  CSDK::uninitialize();
  EXPECT_FALSE(CSDK::isInitialized());
  CSDK::uninitialize();
  EXPECT_FALSE(CSDK::isPreferencesRegistered());
}

}  // namespace

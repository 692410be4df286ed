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
  HostServicesTest() { State::initialize(); }
  ~HostServicesTest() override {
    while (CSDK::isInitialized()) CSDK::uninitialize();
  }

  void registerPreferences(void* context) {
    State::_instance->_getPrefsCallback = [](void* store, const char* key, char* buffer, int* length) {
      ++calls;
      const auto& values = *static_cast<std::map<std::string, std::string>*>(store);
      const auto value = values.find(key);
      if (value == values.end()) return;
      if (!buffer) {
        *length = static_cast<int>(value->second.size());
      } else {
        // A host may come back on its own thread.
        EXPECT_TRUE(CSDK::isPreferencesRegistered());
        std::memcpy(buffer, value->second.data(), static_cast<std::size_t>(*length));
      }
    };
    State::_instance->_setPrefsCallback = [](void* store, const char* key, const char* value) {
      ++calls;
      (*static_cast<std::map<std::string, std::string>*>(store))[key] = value;
    };
    State::_instance->_prefsContext = context;
    calls = 0;
  }

  std::map<std::string, std::string> preferences;
  static inline int calls = 0;
};

TEST_F(HostServicesTest, TextsAreTranslatedWhileACallbackIsRegistered) {
  const char* key = "av_source_no_fps_settings";
  EXPECT_EQ(CSDK::TranslateString(key), key);
  State::_instance->_localizeCallback = [](const char*) { return "translated"; };
  EXPECT_STREQ(CSDK::TranslateString(key), "translated");
  State::_instance->_localizeCallback = nullptr;
  EXPECT_EQ(CSDK::TranslateString(key), key);

  CSDK::uninitialize();
  EXPECT_EQ(CSDK::TranslateString(key), nullptr);
}

TEST_F(HostServicesTest, PreferencesAreWrittenAndReadBackWithATerminator) {
  registerPreferences(&preferences);

  EXPECT_TRUE(CSDK::setPreferences("size", "large"));
  char* value = nullptr;
  int length = 0;
  ASSERT_TRUE(CSDK::getPreferences("size", value, &length));
  EXPECT_EQ(length, 5);
  EXPECT_STREQ(value, "large");
  std::free(value);

  value = nullptr;
  length = 77;
  EXPECT_FALSE(CSDK::getPreferences("unknown", value, &length));
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(length, 77);
  EXPECT_FALSE(CSDK::removePreferences("size"));
}

TEST_F(HostServicesTest, WithoutContextOrValueTheHostIsNotAsked) {
  registerPreferences(nullptr);
  char* value = nullptr;
  EXPECT_FALSE(CSDK::isPreferencesRegistered());
  EXPECT_FALSE(CSDK::getPreferences("size", value, nullptr));
  EXPECT_FALSE(CSDK::setPreferences("size", "large"));

  registerPreferences(&preferences);
  EXPECT_FALSE(CSDK::setPreferences("size", nullptr));
  EXPECT_EQ(calls, 0);
}

TEST_F(HostServicesTest, TheLastUninitialisationEndsTheState) {
  State::initialize();
  EXPECT_EQ(State::_initCount, 1U);
  CSDK::uninitialize();
  EXPECT_TRUE(CSDK::isInitialized());
  EXPECT_EQ(State::_initCount, 0U);
  CSDK::uninitialize();
  EXPECT_FALSE(CSDK::isInitialized());
  CSDK::uninitialize();
  EXPECT_FALSE(CSDK::isPreferencesRegistered());
}

}  // namespace

#include "common/CommonSDK.h"

#include <gtest/gtest.h>

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

}  // namespace

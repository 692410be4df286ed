#include <Foundation/NSLog.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

TEST(LogTest, EachMessageIsOneLineWithTimeAndProcess) {
  const std::string longText(5000, 'x');
  testing::internal::CaptureStderr();
  errno = ENOENT;

  NSLog("Failed to get %s %d\n", "device", 3);
  NSLog("%s", longText.c_str());

  const int errorAfter = errno;
  const std::string output = testing::internal::GetCapturedStderr();
  const std::string prefix = "....-..-.. ..:..:..[.]... unit_foundation.[0-9]+:[0-9]+. ";
  EXPECT_THAT(output, testing::MatchesRegex(prefix + "Failed to get device 3\n" + prefix + longText + "\n"));
  EXPECT_EQ(errorAfter, ENOENT);
}

}  // namespace

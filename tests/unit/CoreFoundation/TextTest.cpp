// Strings, the scanner and paths.

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <Foundation/NSPathUtilities.h>
#include <Foundation/NSScanner.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

namespace {

TEST(StringTest, AcceptsWellFormedTextOnlyAndCountsUTF16Units) {
  struct {
    const char* text;
    std::optional<CFIndex> length;
  } const cases[] = {
      {"", 0},
      {"Camera", 6},
      {"Kamera f\xC3\xBCr \xE2\x82\xAC", 12},
      {"\xF0\x9F\x8E\xA5", 2},
      {"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", 4},  // the neighbours of the surrogates, the last character
      {"\x80", std::nullopt},                           // continuation without a beginning
      {"abc\xE2\x82", std::nullopt},                    // cut off
      {"\xC3(", std::nullopt},                          // begun, not continued
      {"\xC0\xAF", std::nullopt},                       // overlong in two, three and four bytes
      {"\xE0\x80\xAF", std::nullopt},
      {"\xF0\x80\x80\xAF", std::nullopt},
      {"\xED\xA0\x80", std::nullopt},      // surrogate
      {"\xF4\x90\x80\x80", std::nullopt},  // beyond the last character
      {"\xFF", std::nullopt},
  };

  for (const auto& each : cases) {
    const auto string = CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, each.text, kCFStringEncodingUTF8));
    ASSERT_EQ(static_cast<bool>(string), each.length.has_value()) << each.text;
    EXPECT_EQ(CFStringGetLength(string.get()), each.length.value_or(0)) << each.text;
  }
  EXPECT_EQ(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), nullptr);
  EXPECT_EQ(CFStringCreateWithCString(nullptr, "Camera", 0), nullptr);
}

TEST(StringTest, CopiesOnlyWhenTheTerminatorFitsToo) {
  const auto string = CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, "four", kCFStringEncodingUTF8));
  char buffer[5] = {};

  EXPECT_FALSE(CFStringGetCString(string.get(), buffer, 4, kCFStringEncodingUTF8));
  EXPECT_FALSE(CFStringGetCString(string.get(), buffer, -1, kCFStringEncodingUTF8));
  EXPECT_TRUE(CFStringGetCString(string.get(), buffer, 5, kCFStringEncodingUTF8));
  EXPECT_STREQ(buffer, "four");
}

TEST(ScannerTest, ReadsHexadecimalNumbersAsFarAsTheyGo) {
  constexpr std::uint64_t Untouched = 77;
  constexpr std::uint64_t Largest = std::numeric_limits<std::uint64_t>::max();
  struct {
    const char* text;
    std::size_t start;
    bool found;
    std::uint64_t value;
    std::size_t end;
  } const cases[] = {
      {"x0011223344556677", 1, true, 0x0011223344556677, 17},
      {"0x800000014200000-rest", 0, true, 0x800000014200000, 17},
      {" \t\n0XfFg", 0, true, 0xFF, 7},
      {"0x", 0, true, 0, 1},
      {"0xg", 0, true, 0, 1},
      {"ffffffffffffffff", 0, true, Largest, 16},
      {"10000000000000000f-", 0, true, Largest, 18},
      {"ghost", 0, false, Untouched, 0},
      {"  ", 1, false, Untouched, 1},
      {"12", 99, false, Untouched, 2},
      {"", 0, false, Untouched, 0},
  };

  for (const auto& each : cases) {
    NSScanner scanner = NSScanner::scannerWithString(each.text);
    scanner.setScanLocation(each.start);
    std::uint64_t value = Untouched;

    EXPECT_EQ(scanner.scanHexLongLong(&value), each.found) << each.text;
    EXPECT_EQ(value, each.value) << each.text;
    EXPECT_EQ(scanner.scanLocation(), each.end) << each.text;
  }
}

TEST(PathTest, JoinsWithOneSlash) {
  struct {
    const char *path, *component, *joined;
  } const cases[] = {
      {"/home/me", "Library", "/home/me/Library"},
      {"/home/me//", "//Library/", "/home/me/Library/"},
      {"/", "tmp", "/tmp"},
      {"", "tmp", "tmp"},
      {"", "/tmp", "/tmp"},
      {"/home/", "", "/home/"},
      {"home", "/", "home"},
  };

  for (const auto& each : cases) {
    EXPECT_EQ(stringByAppendingPathComponent(each.path, each.component), each.joined);
  }
}

TEST(PathTest, FindsTheLastComponent) {
  struct {
    const char *path, *last;
  } const cases[] = {{"/a/b.mov", "b.mov"}, {"/a/b//", "b"}, {"b", "b"}, {"/", "/"}, {"//", "/"}, {"", ""}};

  for (const auto& each : cases) EXPECT_EQ(lastPathComponent(each.path), each.last) << each.path;
}

TEST(PathTest, ARelativeHomeIsNotBelieved) {
  const char* const home = std::getenv("HOME");
  const std::optional<std::string> before = home ? std::optional<std::string>(home) : std::nullopt;

  setenv("HOME", "/somewhere/else", 1);
  EXPECT_EQ(NSHomeDirectory(), "/somewhere/else");
  setenv("HOME", "relative", 1);
  EXPECT_EQ(NSHomeDirectory().front(), '/');

  before ? setenv("HOME", before->c_str(), 1) : unsetenv("HOME");
}

}  // namespace

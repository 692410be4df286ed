// Strings and the scanner.

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <Foundation/NSScanner.h>
#include <gtest/gtest.h>

#include <limits>

namespace {

CFRef<CFStringRef> makeString(const char* text) {
  return CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8));
}

TEST(StringTest, AcceptsWellFormedTextOnlyAndCountsUTF16Units) {
  struct {
    const char* text;
    CFIndex length;
  } const accepted[] = {
      {"Kamera f\xC3\xBCr \xE2\x82\xAC", 12},
      {"\xF0\x9F\x8E\xA5", 2},
      {"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", 4},  // the neighbours of the surrogates, the last character
  };
  // No beginning, cut off, not continued; overlong in two, three and four bytes; a surrogate; past the last character.
  const char* const refused[] = {
      "\x80",         "abc\xE2\x82",      "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF",
      "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF",  nullptr};

  for (const auto& each : accepted) EXPECT_EQ(CFStringGetLength(makeString(each.text).get()), each.length) << each.text;
  for (const char* const text : refused) EXPECT_FALSE(makeString(text)) << text;
}

TEST(StringTest, CopiesOnlyWhenTheTerminatorFitsToo) {
  const auto string = makeString("four");
  char buffer[5] = {};

  for (const CFIndex size : {-1, 4, 5}) {
    EXPECT_EQ(CFStringGetCString(string.get(), buffer, size, kCFStringEncodingUTF8), size == 5) << size;
  }
  EXPECT_STREQ(buffer, "four");
}

TEST(ScannerTest, ReadsHexadecimalNumbersAsFarAsTheyGo) {
  constexpr std::uint64_t Untouched = 77;
  constexpr std::uint64_t Largest = std::numeric_limits<std::uint64_t>::max();
  struct {
    const char* text;
    std::size_t start;
    std::uint64_t value;
    std::size_t end;
  } const cases[] = {
      {"x0011223344556677", 1, 0x0011223344556677, 17},
      {"0x800000014200000-rest", 0, 0x800000014200000, 17},
      {" \t\n0XfFg", 0, 0xFF, 7},
      {"0xg", 0, 0, 1},
      {"10000000000000000f-", 0, Largest, 18},
      {"ghost", 0, Untouched, 0},
      {"12", 99, Untouched, 2},
      {"", 0, Untouched, 0},
  };

  for (const auto& each : cases) {
    NSScanner scanner = NSScanner::scannerWithString(each.text);
    scanner.setScanLocation(each.start);
    std::uint64_t value = Untouched;

    EXPECT_EQ(scanner.scanHexLongLong(&value), each.value != Untouched) << each.text;
    EXPECT_EQ(value, each.value) << each.text;
    EXPECT_EQ(scanner.scanLocation(), each.end) << each.text;
  }
}

}  // namespace

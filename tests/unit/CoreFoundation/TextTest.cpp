#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <gtest/gtest.h>

namespace {

CFRef<CFStringRef> makeString(const char* text) {
  return CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8));
}

TEST(StringTest, AcceptsWellFormedTextOnlyCountsUTF16UnitsAndCopiesWithATerminator) {
  // The neighbours of the surrogates and the last character among them.
  const auto string = makeString("f\xC3\xBC \xE2\x82\xAC \xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF");
  EXPECT_EQ(CFStringGetLength(string.get()), 9);
  // No beginning, cut off, not continued; overlong in two, three and four bytes; a surrogate; past the last character.
  for (const char* const refused : {"\x80", "abc\xE2\x82", "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF",
                                    "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(makeString(refused)) << refused;
  }

  char buffer[5] = {};
  for (const CFIndex size : {-1, 4, 5}) {
    EXPECT_EQ(CFStringGetCString(makeString("four").get(), buffer, size, kCFStringEncodingUTF8), size == 5) << size;
  }
  EXPECT_STREQ(buffer, "four");
}

}  // namespace

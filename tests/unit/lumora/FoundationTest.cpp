#include <gtest/gtest.h>
#include <lumora/zBuffer.h>
#include <lumora/zTrace.h>

#include <string>
#include <vector>

namespace {

TEST(BufferTest, BytesAreAddedWholeAlsoItsOwnAndATerminatorFollowsThem) {
  for (const unsigned increment : {0U, 1U, 1000U}) {
    zBuffer buffer(increment, increment);
    std::string expected = "a";
    EXPECT_TRUE(*buffer.Data() == '\0' && buffer.Append(nullptr, 0) && buffer.Append("a", 1));
    EXPECT_FALSE(buffer.Append(nullptr, 1) || buffer.Append("a", 0xFFFFFFFF));
    for (int i = 0; i < 12; ++i) {
      EXPECT_TRUE(buffer.Append(buffer.Data(), buffer.Length()) && buffer.Append("bc", 1));
      expected += expected + "b";
    }
    EXPECT_EQ(std::string(buffer.Data(), buffer.Length() + 1), std::string(expected.c_str(), expected.size() + 1));
    buffer.MakeEmpty();
    EXPECT_TRUE(*buffer.Data() == '\0' && buffer.Length() == 0);
  }
}

TEST(TraceTest, LongNotesAreCutBetweenCharactersAndReachTheSinkOrStandardError) {
  const std::string ascii(1020, 'a');
  // Characters of two, three and four bytes across the limit of 1023 bytes, and some that end at it.
  const char* const cases[][2] = {{"aa\xC3\xA9", "aa"},
                                  {"aa\xE2\x82\xAC", "aa"},
                                  {"a\xE2\x82\xAC", "a"},
                                  {"\xF0\x9F\x8E\xA5", ""},
                                  {"a\xC3\xA9tail", "a\xC3\xA9"},
                                  {"\xE2\x82\xACtail", "\xE2\x82\xAC"},
                                  {"aaa\xC3", "aaa"},
                                  {"aa\xC3", "aa\xC3"}};  // not cut
  zTrace trace;
  std::vector<std::string> notes;
  testing::internal::CaptureStderr();
  trace.TraceNote("before");
  trace.SetSink([&](const char* note) { notes.emplace_back(note); });
  for (const auto& [tail, heard] : cases) {
    trace.TraceNote("%s%s", ascii.c_str(), tail);
    EXPECT_EQ(notes.back(), ascii + heard);
  }
  trace.TraceNote("%ls", L"\u20AC");
  EXPECT_EQ(notes.back(), "%ls") << "no such character in the C locale";
  trace.SetSink([&](const char*) {
    trace.TraceNote("within\n");
    throw 1;
  });
  trace.TraceNote("thrown");
  trace.TraceNote("thrown");
  trace.SetSink({});
  trace.TraceNote("%s", "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "before\nwithin\nthrown\nwithin\nthrown\n\n");
}

}  // namespace

#include <gtest/gtest.h>
#include <lumora/zBuffer.h>
#include <lumora/zTrace.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

TEST(BufferTest, AppendedBytesFollowEachOtherWhateverTheGrowthAndOthersLeaveItAsItWas) {
  for (const unsigned int increment : {0u, 1u, 4096u}) {
    zBuffer buffer(0, increment);
    std::string expected;
    for (int i = 0; i < 200; ++i) {
      const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>(i));
      expected += piece;
      ASSERT_TRUE(buffer.Append(piece.data(), static_cast<unsigned int>(piece.size())));
    }
    ASSERT_TRUE(buffer.Append(buffer.Data(), buffer.Length()));  // Its own bytes, as it grows.
    EXPECT_FALSE(buffer.Append(nullptr, 1) || buffer.Append("x", std::numeric_limits<unsigned int>::max()));
    EXPECT_EQ(std::string(buffer.Data(), buffer.Length() + 1), expected + expected + '\0');
  }
}

class TraceTest : public testing::Test {
 protected:
  void capture() {
    _trace.SetSink([this](const char* note) { _notes.emplace_back(note); });
  }
  zTrace _trace;
  std::vector<std::string> _notes;
};

TEST_F(TraceTest, NotesReachTheSinkAsTheyAreAndLongOnesCutBetweenCodePoints) {
  capture();
  _trace.TraceNote("camera [%s] failed: %d\n", "100% \xC3\xA9", 3);
  EXPECT_EQ(_notes.back(), "camera [100% \xC3\xA9] failed: 3\n");

  const std::string ellipsis = "\xE2\x80\xA6";
  for (std::size_t lead = 0; lead < ellipsis.size(); ++lead) {
    std::string text(lead, 'x');
    while (text.size() <= zTrace::MaximumNoteLength) text += ellipsis;
    _trace.TraceNote("%s", text.c_str());

    const std::size_t whole = (zTrace::MaximumNoteLength - lead) / ellipsis.size() * ellipsis.size();
    EXPECT_EQ(_notes.back(), text.substr(0, lead + whole));
  }
}

}  // namespace

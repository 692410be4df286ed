#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <memory>
#include <random>
#include <string>

namespace {

void appendUtf8(std::string& text, char32_t c) {
  constexpr char32_t Leads[] = {0, 0xC0, 0xE0, 0xF0};
  const int continuations = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
  text += static_cast<char>(Leads[continuations] | c >> 6 * continuations);
  for (int i = continuations - 1; i >= 0; --i) text += static_cast<char>(0x80 | (c >> 6 * i & 0x3F));
}

/// What XML 1.0 calls a character.
bool isXMLCharacter(char32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c < 0xD800) || (c > 0xDFFF && c < 0xFFFE) ||
         (c > 0xFFFF && c <= 0x10FFFF);
}

/// Writes and reads in both layouts; both must give the tree back.
void expectRoundTrip(const zRecord& record) {
  for (const bool indented : {false, true}) {
    zBuffer buffer(0, 0);
    ASSERT_EQ(zXML::RecordToBuffer(&buffer, record, 5, !indented, indented), 0);
    zRecord byLength;
    ASSERT_EQ(zXML::ParseBuffer(255, &byLength, buffer.Data(), static_cast<int>(buffer.Length())), 0);
    EXPECT_TRUE(byLength == record) << buffer.Data();
    zRecord byTerminator;
    ASSERT_EQ(zXML::ParseBuffer(255, &byTerminator, buffer.Data(), -1), 0);
    EXPECT_TRUE(byTerminator == record) << buffer.Data();
  }
}

class TreeGenerator {
 public:
  explicit TreeGenerator(unsigned int seed) : _random(seed) {}

  std::unique_ptr<zRecord> tree(int levels) {
    auto record = std::make_unique<zRecord>(text().c_str());
    for (int fields = below(4); fields > 0; --fields) {
      const std::string key = text();
      const int kind = below(3);
      if (kind == 0) record->SetCString(key.c_str(), text().c_str(), 0);
      if (kind == 1) record->SetUInt16(key.c_str(), static_cast<unsigned short>(number()), 0);
      if (kind == 2) record->SetInt32(key.c_str(), static_cast<int>(number()), 0);
    }
    if (levels > 1) {
      for (int children = 1 + below(2); children > 0; --children) {
        record->AddChild(tree(levels - 1).release(), below(3));
      }
    }
    return record;
  }

 private:
  int below(unsigned int bound) { return static_cast<int>(_random() % bound); }

  /// Often an end of a type's range.
  std::uint32_t number() {
    constexpr std::uint32_t Ends[] = {0, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    return below(2) == 0 ? Ends[_random() % std::size(Ends)] : static_cast<std::uint32_t>(_random());
  }

  std::string text() {
    constexpr char32_t Awkward[] = U" \t\n\r<>&\"']";
    std::string text;
    for (int length = below(12); length > 0; --length) {
      // Often what needs an escape, otherwise short and long sequences alike.
      const auto c = static_cast<char32_t>(below(3) == 0 ? Awkward[_random() % (std::size(Awkward) - 1)]
                                                         : _random() % (1u << (1 + below(21))));
      if (isXMLCharacter(c)) appendUtf8(text, c);
    }
    return text;
  }

  std::mt19937 _random;
};

TEST(RecordXMLTest, RandomTreesComeBackTheSame) {
  for (unsigned int seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    expectRoundTrip(*TreeGenerator(seed).tree(8));
  }
}

TEST(RecordXMLTest, ExactlyTheCharactersOfXMLAreWritten) {
  std::string carried;
  for (char32_t c = 1; c < 0x110000; ++c) {
    if (isXMLCharacter(c)) {
      appendUtf8(carried, c);
    } else {
      std::string refused = "a";
      appendUtf8(refused, c);
      zBuffer buffer(0, 0);
      ASSERT_NE(zXML::RecordToBuffer(&buffer, zRecord(refused.c_str()), 5, true, false), 0) << refused;
    }
  }

  expectRoundTrip(zRecord(carried.c_str()));
}

TEST(RecordXMLTest, IllFormedTextIsRefusedWhereverItStandsAndLeavesTheBufferEmpty) {
  const char* const illFormed[] = {
      "\x80", "a\xC3", "\xC3(", "\xC0\xAF", "\xE0\x9F\xBF", "\xE2\x82", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xFF"};
  for (const char* text : illFormed) {
    zRecord asName(text), asKey, asValue, asChild;
    asKey.SetInt32(text, 1, 0);
    asValue.SetCString("value", text, 0);
    asChild.AddChild(new zRecord(text), zRecord::AtEnd);
    for (const zRecord* record : {&asName, &asKey, &asValue, &asChild}) {
      zBuffer buffer(0, 0);
      buffer.Append("before", 6);
      EXPECT_EQ(zXML::RecordToBuffer(&buffer, *record, 5, true, false), zXML::NotRepresentable);
      EXPECT_EQ(buffer.Length(), 0u);
    }
  }
}

TEST(RecordXMLTest, EveryIndexOfA16BitOptionListComesBack) {
  zRecord root("parameter");
  for (unsigned int i = 0; i < 65536; ++i) {
    auto* const option = new zRecord("option");
    option->SetUInt16("value", static_cast<unsigned short>(i), 0);
    root.AddChild(option, zRecord::AtEnd);
  }

  expectRoundTrip(root);
}

TEST(RecordXMLTest, WhatIsDeeperOrLongerThanReadersTakeIsNotWritten) {
  zRecord root;
  zRecord* deepest = &root;
  const auto deepen = [&deepest] {
    auto* const child = new zRecord("level");
    deepest->AddChild(child, zRecord::AtEnd);
    deepest = child;
  };
  for (unsigned int depth = 1; depth < zXML::MaximumDepth; ++depth) deepen();
  expectRoundTrip(root);

  zBuffer buffer(0, 0);
  deepen();
  EXPECT_EQ(zXML::RecordToBuffer(&buffer, root, 5, true, false), zXML::TooDeep);

  zRecord large;
  large.SetCString("value", std::string(zXML::MaximumLength, 'x').c_str(), 0);
  EXPECT_EQ(zXML::RecordToBuffer(&buffer, large, 5, true, false), zXML::TooLong);
  EXPECT_EQ(buffer.Length(), 0u);
}

}  // namespace

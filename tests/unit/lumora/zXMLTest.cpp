#include <gtest/gtest.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>
#include <malloc.h>
#include <sys/stat.h>

#include <string>

#include "support/TemporaryFolder.h"

namespace {

const std::string Valid =
    R"(<?xml version="1.0" encoding="UTF-8"?><record name="settings"><text name="a&amp;b" value="caf&#xE9;&#10;"/>)"
    R"(<uint16 name="n" value="65535"/><record name="parameter"><int32 name="value" value="-1"/></record></record>)";

/// Parses into a record that already holds something; an error must leave nothing of that.
int parse(const std::string& document, zRecord* into = nullptr) {
  zRecord own;
  zRecord& record = into ? *into : own;
  record.SetInt32("before", 1, 0);
  record.AddChild(new zRecord("before"), zRecord::AtEnd);
  const int result = zXML::ParseBuffer(255, &record, document.data(), static_cast<int>(document.size()));
  EXPECT_TRUE(result == 0 || record == zRecord()) << document.substr(0, 200);
  return result;
}

int write(const zRecord& record, zBuffer& buffer, bool isIndented = false) {
  return zXML::RecordToBuffer(&buffer, record, 5, !isIndented, isIndented);
}

TEST(XMLWriterTest, IndentedEveryElementHasALine) {
  zRecord record;
  zBuffer buffer(0, 0);
  ASSERT_EQ(parse(Valid, &record), 0);
  EXPECT_EQ(write(record, buffer), 0);
  EXPECT_EQ(buffer.Length(), Valid.size() - 4) << "but for a character that is written as it is";
  EXPECT_EQ(zXML::RecordToBuffer(&buffer, record, 5, true, true), 0);
  EXPECT_STREQ(buffer.Data(), R"(<?xml version="1.0" encoding="UTF-8"?>
<record name="settings">
  <text name="a&amp;b" value="café&#10;"/>
  <uint16 name="n" value="65535"/>
  <record name="parameter">
    <int32 name="value" value="-1"/>
  </record>
</record>
)");
}

TEST(XMLReaderTest, LayoutCommentsAttributeOrderAndEncodingDoNotMatter) {
  zRecord record;
  ASSERT_EQ(parse("<?xml version='1.0' encoding='ISO-8859-1'?>\n<!-- by hand -->\r\n<record\tname='\xE9'>\n"
                  "  <record name=''></record>\n  <text value=' &lt;&#x1F600;' name='t'> </text>\n</record>\n",
                  &record),
            0);

  EXPECT_STREQ(record.Name(), "\xC3\xA9");
  EXPECT_EQ(record.ChildCount(), 1u);
  EXPECT_STREQ(record.AsCString("t", nullptr, nullptr), " <\xF0\x9F\x98\x80");
}

TEST(XMLReaderTest, WhatIsNotExactlyARecordIsRefused) {
  // clang-format off
  const char* const documents[] = {
      "", "plain", "<record/>", "<Record name='r'/>", "<text name='n' value='v'/>", "<record name='r' value='v'/>",
      "<record name='r'/><record name='r'/>", "<record name='r'/>tail", "<record name='r'>", "<record name='\x01'/>",
      "<record name='&#0;'/>", "<record name='\xC3'/>", "<record name='&#xFFFF;'/>", "<record name='&other;'/>",
      "<!DOCTYPE record SYSTEM \"file:///etc/hostname\"><record name=\"r\"/>"};
  const char* const contents[] = {
      "text", "<![CDATA[text]]>", "<float name='n' value='1'/>", "<text name='n'/>", "<text value='v'/>",
      "<text name='n' value='v' x=''/>", "<text name='n' value='v'>v</text>",
      "<text name='n' value='1'/><int32 name='m' value='1'/><int32 name='n' value='1'/>", "<uint16 name='n' value='65536'/>",
      "<uint16 name='n' value='-1'/>", "<uint16 name='n' value=''/>", "<int32 name='n' value='2147483648'/>",
      "<int32 name='n' value=' 1'/>", "<int32 name='n' value='1.0'/>"};
  // clang-format on
  for (const char* document : documents) EXPECT_EQ(parse(document), zXML::Malformed) << document;
  for (const char* content : contents) {
    EXPECT_EQ(parse("<record name='r'>" + std::string(content) + "</record>"), zXML::Malformed) << content;
  }
  EXPECT_EQ(parse(Valid + '\0'), zXML::Malformed);
  for (std::size_t length = 0; length < Valid.size(); ++length) EXPECT_NE(parse(Valid.substr(0, length)), 0) << length;
}

TEST(XMLTest, WhatIsTooDeepOrTooLongIsRefusedInBothDirectionsAndNothingShorter) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "<record name=\"r\">";
  EXPECT_EQ(parse(deep), zXML::TooDeep);
  zRecord record;
  zBuffer buffer(0, 0);
  for (std::size_t depth : {257U, 256U}) {
    deep.resize(depth * 17);
    for (std::size_t i = 0; i < depth; ++i) deep += "</record>";
    EXPECT_EQ(parse(deep, &record), depth > 256 ? zXML::TooDeep : zXML::Success);
  }
  EXPECT_EQ(write(record, buffer), zXML::Success);
  zRecord deeper("r");
  for (auto [outer, i] = std::pair(&deeper, 0); i < 256; ++i) {
    auto* const inner = new zRecord("r");
    outer->AddChild(inner, 0);
    outer = inner;
  }
  EXPECT_EQ(write(deeper, buffer), zXML::TooDeep);

  const auto held = mallinfo2().hblkhd;
  for (const unsigned excess : {0U, 1U}) {
    const zRecord longest(std::string(zXML::MaximumLength - 17 + excess, 'n').c_str());
    zBuffer document(0, 0);
    zRecord read;
    EXPECT_EQ(zXML::RecordToBuffer(&document, longest, 5, false, false), excess ? zXML::TooLong : zXML::Success);
    EXPECT_EQ(zXML::ParseBuffer(255, &read, document.Data(), -1), excess ? zXML::Malformed : zXML::Success);
  }
  EXPECT_EQ(parse(std::string(zXML::MaximumLength + 1, ' ')), zXML::TooLong);
  EXPECT_LT(mallinfo2().hblkhd, held + zXML::MaximumLength / 2) << "memory is left";
}

TEST(XMLTest, WhatHasNoMeaningIsRefused) {
  zRecord record;
  zBuffer buffer(0, 0);
  const char* const document = "<record name=''/>";
  for (const int result :
       {zXML::RecordToBuffer(nullptr, record, 5, true, true), zXML::RecordToBuffer(&buffer, record, 4, true, true),
        zXML::ParseBuffer(255, nullptr, document, -1), zXML::ParseBuffer(254, &record, document, -1),
        zXML::ParseBuffer(255, &record, nullptr, 0), zXML::ParseBuffer(255, &record, document, -2),
        zXML::ParseFile(255, nullptr, "/"), zXML::ParseFile(254, &record, "/"),
        zXML::ParseFile(255, &record, nullptr)}) {
    EXPECT_EQ(result, zXML::InvalidArgument);
  }
}

TEST(XMLReaderTest, FilesAreReadWholeAndAnythingElseAtAPathIsRefusedWithoutWaiting) {
  const TemporaryFolder folder;
  const std::string file = folder.write("settings.xml", Valid + std::string(100'000, '\n'));
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  zRecord expected, record;
  ASSERT_EQ(parse(Valid, &expected), 0);

  EXPECT_EQ(zXML::ParseFile(255, &record, file.c_str()), 0);
  EXPECT_TRUE(record == expected);
  for (const std::string& path : {folder.file("pipe"), folder.file(""), file + ".missing", std::string("/dev/zero")}) {
    EXPECT_EQ(zXML::ParseFile(255, &record, path.c_str()), zXML::Unreadable) << path;
    EXPECT_TRUE(record == zRecord());
  }
}

TEST(XMLWriterTest, TreesOfEveryTextAndNumberComeBackTheSame) {
  zRecord root(
      "\t\n\r\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
  zRecord* record = &root;
  for (const char* const text : {"", " ", "\t", "\n\r\n", "<", "&amp;", "\"'", "]]>", " a ", "\xC3\xA9"}) {
    auto* const child = new zRecord(text);
    record->AddChild(child, 0);
    record->AddChild(new zRecord("sibling"), zRecord::AtEnd);
    for (const int number : {0, 0xFFFF, 0x7FFFFFFF, -0x7FFFFFFF - 1, -1}) {
      record->SetInt32((std::to_string(number) + text).c_str(), number, 0);
      record->SetUInt16((text + std::to_string(number)).c_str(), static_cast<unsigned short>(number), 0);
    }
    record->SetCString(text, text, 0);
    record = child;
  }
  for (const bool isIndented : {false, true}) {
    zBuffer buffer(0, 0);
    zRecord read;
    ASSERT_EQ(write(root, buffer, isIndented), 0);
    ASSERT_EQ(zXML::ParseBuffer(255, &read, buffer.Data(), -1), 0);
    EXPECT_TRUE(read == root) << buffer.Data();
  }
}

TEST(XMLWriterTest, WhatXMLCannotCarryIsRefusedWhereverItStandsAndLeavesTheBufferEmpty) {
  for (const char* const text :
       {"\x01", "\x08", "\x0B", "\x0E", "\x1F", "\x80", "a\xC3", "\xC3(", "\xC0\xAF", "\xE0\x9F\xBF", "\xED\xA0\x80",
        "\xED\xBF\xBF", "\xEF\xBF\xBE", "\xEF\xBF\xBF", "\xE2\x82", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xFF"}) {
    zRecord asName(text), asKey, asValue, asChild;
    asKey.SetInt32(text, 1, 0);
    asValue.SetCString("value", text, 0);
    auto* const longest = new zRecord;
    longest->SetCString("long", std::string(100'000, 'n').c_str(), 0);
    asChild.AddChild(longest, 0);
    asChild.AddChild(new zRecord(text), zRecord::AtEnd);
    for (const zRecord* record : {&asName, &asKey, &asValue, &asChild}) {
      zBuffer buffer(0, 0);
      buffer.Append("before", 6);
      EXPECT_EQ(write(*record, buffer), zXML::NotRepresentable);
      EXPECT_EQ(buffer.Length(), 0u);
    }
  }
}

}  // namespace

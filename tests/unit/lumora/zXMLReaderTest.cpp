#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace {

const std::string Valid =
    R"(<?xml version="1.0" encoding="UTF-8"?><record name="settings"><text name="a&amp;b" value="caf&#xE9;&#10;"/>)"
    R"(<uint16 name="n" value="65535"/><record name="parameter"><int32 name="value" value="-1"/></record></record>)";

/// Parses into a record that already holds something; an error must leave nothing of that.
int parse(const std::string& document, zRecord& record) {
  record.SetInt32("before", 1, 0);
  record.AddChild(new zRecord("before"), zRecord::AtEnd);
  const int result = zXML::ParseBuffer(255, &record, document.data(), static_cast<int>(document.size()));
  EXPECT_TRUE(result == 0 || record == zRecord()) << document.substr(0, 200);
  return result;
}

int parse(const std::string& document) {
  zRecord record;
  return parse(document, record);
}

TEST(XMLReaderTest, LayoutCommentsAttributeOrderAndEncodingDoNotMatter) {
  zRecord record;
  ASSERT_EQ(parse("<?xml version='1.0' encoding='ISO-8859-1'?>\n<!-- by hand -->\r\n<record\tname='\xE9'>\n"
                  "  <record name=''></record>\n  <text value=' &lt;&#x1F600;' name='t'> </text>\n</record>\n",
                  record),
            0);

  EXPECT_STREQ(record.Name(), "\xC3\xA9");
  EXPECT_EQ(record.ChildCount(), 1u);
  EXPECT_STREQ(record.AsCString("t", nullptr, nullptr), " <\xF0\x9F\x98\x80");
}

TEST(XMLReaderTest, WhatIsNotExactlyARecordIsRefused) {
  // clang-format off
  const char* const documents[] = {
      "", " ", "plain", "<record/>", "<Record name='r'/>", "<settings name='r'/>", "<text name='n' value='v'/>",
      "<record name='r' value='v'/>", "<record name='r' name='r'/>", "<record xmlns='u' name='r'/>",
      "<record name='r'/><record name='r'/>", "<record name='r'/>tail", "<record name='r'>", "<record name='\x01'/>",
      "<record name='&#0;'/>", "<record name='\xC3'/>", "<record name='&#xFFFF;'/>", "<record name='&other;'/>"};
  const char* const contents[] = {
      "text", "&#65;", "<![CDATA[text]]>", "<float name='n' value='1'/>", "<text name='n'/>", "<text value='v'/>",
      "<text name='n' value='v' x=''/>", "<text name='n' value='v'>v</text>",
      "<text name='n' value='v'><record name='r'/></text>",
      "<text name='n' value='1'/><record name='r'/><int32 name='n' value='1'/>", "<uint16 name='n' value='65536'/>",
      "<uint16 name='n' value='-1'/>", "<uint16 name='n' value=''/>", "<int32 name='n' value='2147483648'/>",
      "<int32 name='n' value=' 1'/>", "<int32 name='n' value='1.0'/>"};
  // clang-format on

  for (const char* document : documents) EXPECT_EQ(parse(document), zXML::Malformed) << document;
  for (const char* content : contents) {
    EXPECT_EQ(parse("<record name='r'>" + std::string(content) + "</record>"), zXML::Malformed) << content;
  }
  EXPECT_EQ(parse(Valid + '\0'), zXML::Malformed);
}

TEST(XMLReaderTest, DocumentTypesAreRefusedBeforeAnyEntityIsExpandedOrFetched) {
  std::string laughs = "<!DOCTYPE record [<!ENTITY e0 \"ha\">";
  for (int i = 1; i < 40; ++i) {
    const std::string previous = "&e" + std::to_string(i - 1) + ";";
    laughs += "<!ENTITY e" + std::to_string(i) + " \"" + previous + previous + "\">";
  }
  EXPECT_EQ(parse(laughs + "]><record name=\"&e39;\"/>"), zXML::Malformed);
  EXPECT_EQ(parse("<!DOCTYPE record><record name=\"r\"/>"), zXML::Malformed);
  EXPECT_EQ(parse("<!DOCTYPE record SYSTEM \"file:///etc/hostname\"><record name=\"r\"/>"), zXML::Malformed);
}

TEST(XMLReaderTest, DepthIsBounded) {
  for (const auto& [levels, result] : {std::pair{zXML::MaximumDepth, zXML::Success},
                                       {zXML::MaximumDepth + 1, zXML::TooDeep},
                                       {100'000u, zXML::TooDeep}}) {
    std::string document;
    for (unsigned int i = 0; i < levels; ++i) document += "<record name=\"r\">";
    for (unsigned int i = 0; i < levels; ++i) document += "</record>";
    EXPECT_EQ(parse(document), result);
  }
}

TEST(XMLReaderTest, TruncatedDocumentsAreRefusedAndMutatedOnesAtMostReadAsATreeThatCanBeWritten) {
  for (std::size_t length = 0; length < Valid.size(); ++length) EXPECT_NE(parse(Valid.substr(0, length)), 0) << length;

  std::mt19937 random(20);
  const std::string material = "<>&\"'/=;# \t\nrecordtextint0123-\xC3\xA9\xFF" + std::string(1, '\0');
  for (int round = 0; round < 20'000; ++round) {
    std::string document = Valid;
    for (auto changes = 1 + random() % 3; changes > 0; --changes) {
      const std::size_t at = random() % document.size();
      const char byte = material[random() % material.size()];
      document.replace(at, random() % 4, random() % 2, byte);
    }
    zRecord record;
    zBuffer buffer(0, 0);
    ASSERT_TRUE(parse(document, record) != 0 || zXML::RecordToBuffer(&buffer, record, 5, true, false) == 0) << document;
  }
}

// Quadratic work on any of these would take minutes and run into the time limit of the test.
TEST(XMLReaderTest, LongDocumentsTakeTimeInProportion) {
  std::string fields = "<record name=\"r\">", records = fields;
  for (int i = 0; i < 300'000; ++i) {
    fields += "<int32 name=\"" + std::to_string(i) + "\" value=\"1\"/>";
    records += "<record name=\"r\"/>\n";
  }
  std::string escapes, attributes = "<record name=\"r\"";
  for (int i = 0; i < 1'000'000; ++i) escapes += "&quot;&#13;";
  for (int i = 0; i < 300'000; ++i) attributes += " a" + std::to_string(i) + "=\"\"";

  EXPECT_EQ(parse(fields + "</record>"), 0);
  EXPECT_EQ(parse(records + "</record>"), 0);
  EXPECT_EQ(parse("<record name=\"" + escapes + "\"/>"), 0);
  EXPECT_EQ(parse(attributes + "/>"), zXML::Malformed);
  EXPECT_EQ(parse(std::string(zXML::MaximumLength + 1, ' ')), zXML::TooLong);
}

TEST(XMLReaderTest, LengthsCountBytesAndArgumentsAreChecked) {
  zRecord record;
  zBuffer buffer(0, 0);
  EXPECT_EQ(zXML::ParseBuffer(255, &record, (Valid + "tail").c_str(), static_cast<int>(Valid.size())), 0);
  EXPECT_EQ(zXML::ParseBuffer(255, &record, Valid.c_str(), -2), zXML::InvalidArgument);
  EXPECT_TRUE(record == zRecord());
  EXPECT_EQ(zXML::ParseBuffer(255, &record, nullptr, -1), zXML::InvalidArgument);
  EXPECT_EQ(zXML::ParseBuffer(255, nullptr, Valid.c_str(), -1), zXML::InvalidArgument);
  EXPECT_EQ(zXML::ParseBuffer(1, &record, Valid.c_str(), -1), zXML::InvalidArgument);
  EXPECT_EQ(zXML::ParseFile(255, &record, nullptr), zXML::InvalidArgument);
  EXPECT_EQ(zXML::RecordToBuffer(nullptr, record, 5, true, false), zXML::InvalidArgument);
  EXPECT_EQ(zXML::RecordToBuffer(&buffer, record, 4, true, false), zXML::InvalidArgument);
}

TEST(XMLReaderTest, FilesAreReadWholeAndAnythingElseAtAPathIsRefusedWithoutWaiting) {
  const std::filesystem::path folder =
      std::filesystem::path(testing::TempDir()) / ("lumora" + std::to_string(getpid()));
  std::filesystem::create_directory(folder);
  const std::string file = folder / "settings.xml", pipe = folder / "pipe";
  std::ofstream(file) << Valid << std::string(100'000, '\n');
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  zRecord expected;
  zRecord record;
  ASSERT_EQ(parse(Valid, expected), 0);

  EXPECT_EQ(zXML::ParseFile(255, &record, file.c_str()), 0);
  EXPECT_TRUE(record == expected);
  for (const std::string& path : {pipe, folder.string(), file + ".missing", std::string("/dev/zero"), std::string()}) {
    EXPECT_EQ(zXML::ParseFile(255, &record, path.c_str()), zXML::Unreadable) << path;
    EXPECT_TRUE(record == zRecord());
  }
  std::ofstream(file, std::ios::app) << "tail";
  EXPECT_EQ(zXML::ParseFile(255, &record, file.c_str()), zXML::Malformed);
  std::filesystem::remove_all(folder);
}

}  // namespace

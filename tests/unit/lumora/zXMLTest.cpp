#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

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
      "<record name='&#0;'/>", "<record name='\xC3'/>", "<record name='&#xFFFF;'/>", "<record name='&other;'/>"};
  const char* const contents[] = {
      "text", "<![CDATA[text]]>", "<float name='n' value='1'/>", "<text name='n'/>", "<text value='v'/>",
      "<text name='n' value='v' x=''/>", "<text name='n' value='v'>v</text>",
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

TEST(XMLReaderTest, EntitiesAndDepthsThatWouldCostTooMuchAreRefused) {
  std::string laughs = "<!DOCTYPE record [<!ENTITY e0 \"ha\">", deep;
  for (int i = 1; i < 40; ++i) {
    const std::string previous = "&e" + std::to_string(i - 1) + ";";
    laughs += "<!ENTITY e" + std::to_string(i) + " \"" + previous + previous + "\">";
  }
  for (unsigned int i = 0; i < 100'000; ++i) deep += "<record name=\"r\">";

  EXPECT_EQ(parse(laughs + "]><record name=\"&e39;\"/>"), zXML::Malformed);
  EXPECT_EQ(parse("<!DOCTYPE record SYSTEM \"file:///etc/hostname\"><record name=\"r\"/>"), zXML::Malformed);
  EXPECT_EQ(parse(deep), zXML::TooDeep);
}

TEST(XMLReaderTest, TruncatedDocumentsAreRefusedAndMutatedOnesAtMostReadAsATreeThatCanBeWritten) {
  for (std::size_t length = 0; length < Valid.size(); ++length) EXPECT_NE(parse(Valid.substr(0, length)), 0) << length;

  std::mt19937 random(20);
  const std::string material = "<>&\"'/=;# \t\nrecordtextint0123-\xC3\xA9\xFF" + std::string(1, '\0');
  for (int round = 0; round < 20'000; ++round) {
    std::string document = Valid;
    for (auto changes = 1 + random() % 3; changes > 0; --changes) {
      const char byte = material[random() % material.size()];
      document.replace(random() % document.size(), random() % 4, random() % 2, byte);
    }
    zRecord tree;
    zBuffer buffer(0, 0);
    ASSERT_TRUE(parse(document, &tree) != 0 || zXML::RecordToBuffer(&buffer, tree, 5, true, false) == 0) << document;
  }
}

// Quadratic work on any of these would take minutes and run into the time limit of the test.
TEST(XMLReaderTest, LongDocumentsTakeTimeInProportion) {
  std::string fields = "<record name=\"r\">", attributes = "<record name=\"r\"", escapes;
  for (int i = 0; i < 300'000; ++i) {
    fields += "<int32 name=\"" + std::to_string(i) + "\" value=\"1\"/>";
    attributes += " a" + std::to_string(i) + "=\"\"";
    escapes += "&quot;&#13;&quot;&#13;";
  }
  for (int i = 0; i < 300'000; ++i) fields += "<record name=\"r\"/>\n";

  EXPECT_EQ(parse(fields + "</record>"), 0);
  EXPECT_EQ(parse("<record name=\"" + escapes + "\"/>"), 0);
  EXPECT_EQ(parse(attributes + "/>"), zXML::Malformed);
  EXPECT_EQ(parse(std::string(zXML::MaximumLength + 1, ' ')), zXML::TooLong);
}

TEST(XMLReaderTest, LengthsCountBytesAndArgumentsAreChecked) {
  zRecord record;
  EXPECT_EQ(zXML::ParseBuffer(255, &record, (Valid + "tail").c_str(), static_cast<int>(Valid.size())), 0);
  EXPECT_EQ(zXML::ParseBuffer(255, &record, Valid.c_str(), -2), zXML::InvalidArgument);
  EXPECT_EQ(zXML::ParseBuffer(255, &record, nullptr, -1), zXML::InvalidArgument);
  EXPECT_EQ(zXML::ParseBuffer(255, nullptr, Valid.c_str(), -1), zXML::InvalidArgument);
}

TEST(XMLReaderTest, FilesAreReadWholeAndAnythingElseAtAPathIsRefusedWithoutWaiting) {
  const std::filesystem::path folder = testing::TempDir() + "lumora" + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  const std::string file = folder / "settings.xml", pipe = folder / "pipe";
  std::ofstream(file) << Valid << std::string(100'000, '\n');
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  zRecord expected, record;
  ASSERT_EQ(parse(Valid, &expected), 0);

  EXPECT_EQ(zXML::ParseFile(255, &record, file.c_str()), 0);
  EXPECT_TRUE(record == expected);
  for (const std::string& path : {pipe, folder.string(), file + ".missing", std::string("/dev/zero"), std::string()}) {
    EXPECT_EQ(zXML::ParseFile(255, &record, path.c_str()), zXML::Unreadable) << path;
    EXPECT_TRUE(record == zRecord());
  }
  std::filesystem::remove_all(folder);
}

/// Writes and reads in both layouts; both must give the tree back.
void expectRoundTrip(const zRecord& record) {
  for (const bool indented : {false, true}) {
    zBuffer buffer(0, 0);
    ASSERT_EQ(zXML::RecordToBuffer(&buffer, record, 5, !indented, indented), 0);
    for (const int length : {-1, static_cast<int>(buffer.Length())}) {
      zRecord read;
      ASSERT_EQ(zXML::ParseBuffer(255, &read, buffer.Data(), length), 0);
      EXPECT_TRUE(read == record) << buffer.Data();
    }
  }
}

std::string randomText(std::mt19937& random) {
  const std::string pieces[] = {" ", "\t", "\n", "\r", "<", "&", "\"", "'", "]]>", "a", "\xC3\xA9", "\xF0\x9F\x98\x80"};
  std::string text;
  for (auto length = random() % 8; length > 0; --length) text += pieces[random() % std::size(pieces)];
  return text;
}

void addRandomTree(zRecord& record, std::mt19937& random, int levels) {
  constexpr std::uint32_t Numbers[] = {0, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
  for (auto fields = random() % 4; fields > 0; --fields) {
    const std::string key = randomText(random);
    const std::uint32_t number = Numbers[random() % std::size(Numbers)];
    record.SetCString(randomText(random).c_str(), randomText(random).c_str(), 0);
    random() % 2 ? record.SetUInt16(key.c_str(), static_cast<unsigned short>(number), 0)
                 : record.SetInt32(key.c_str(), static_cast<int>(number), 0);
  }
  for (auto children = levels > 1 ? 1 + random() % 2 : 0; children > 0; --children) {
    auto* const child = new zRecord(randomText(random).c_str());
    record.AddChild(child, static_cast<int>(random() % 3));
    addRandomTree(*child, random, levels - 1);
  }
}

TEST(XMLWriterTest, RandomTreesComeBackTheSame) {
  for (unsigned int seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    zRecord root;
    addRandomTree(root, random, 8);
    expectRoundTrip(root);
  }
}

TEST(XMLWriterTest, WhatXMLCannotCarryIsRefusedWhereverItStandsAndLeavesTheBufferEmpty) {
  expectRoundTrip(zRecord(
      "\t\n\r\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"));
  for (const char* const text :
       {"\x01", "\x08", "\x0B", "\x0E", "\x1F", "\x80", "a\xC3", "\xC3(", "\xC0\xAF", "\xE0\x9F\xBF", "\xED\xA0\x80",
        "\xED\xBF\xBF", "\xEF\xBF\xBE", "\xEF\xBF\xBF", "\xE2\x82", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xFF"}) {
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

TEST(XMLWriterTest, WhatIsDeeperOrLongerThanReadersTakeIsNotWritten) {
  zRecord root, large;
  zRecord* deepest = &root;
  const auto deepen = [&] {
    auto* const child = new zRecord("level");
    deepest->AddChild(child, zRecord::AtEnd);
    deepest = child;
  };
  for (unsigned int depth = 1; depth < zXML::MaximumDepth; ++depth) deepen();
  expectRoundTrip(root);
  deepen();
  large.SetCString("value", std::string(zXML::MaximumLength, 'x').c_str(), 0);

  zBuffer buffer(0, 0);
  EXPECT_EQ(zXML::RecordToBuffer(&buffer, root, 5, true, false), zXML::TooDeep);
  EXPECT_EQ(zXML::RecordToBuffer(&buffer, large, 5, true, false), zXML::TooLong);
}

}  // namespace

#include <lumora/zRecord.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;

std::vector<std::string> childNames(const zRecord& record) {
  std::vector<std::string> names;
  for (unsigned int i = 0; i < record.ChildCount(); ++i) names.emplace_back(record.Child(i)->Name());
  return names;
}

TEST(RecordTest, SettingAFieldAgainReplacesValueAndTypeInItsPlace) {
  zRecord record("settings");
  record.SetCString("name", "Video FPS", 0);
  record.SetInt32("value", -1, 0);
  record.SetUInt16("name", 7, 0);

  EXPECT_THAT(record.Fields(), ElementsAre(zField{"name", std::uint16_t{7}}, zField{"value", std::int32_t{-1}}));
}

TEST(RecordTest, FieldsAreReadAsIntegersWhereTheyAreOne) {
  constexpr int Fallback = -77;
  const std::pair<const char*, int> cases[] = {{"12", 12},
                                               {"2147483647", std::numeric_limits<int>::max()},
                                               {"-2147483648", std::numeric_limits<int>::min()},
                                               {"", Fallback},
                                               {"2147483648", Fallback},
                                               {" 12", Fallback},
                                               {"12 ", Fallback},
                                               {"+12", Fallback},
                                               {"1.0", Fallback}};

  zRecord record;
  for (const auto& [text, expected] : cases) {
    record.SetCString("value", text, 0);
    EXPECT_EQ(record.AsInt32("value", Fallback), expected) << '"' << text << '"';
  }
  record.SetUInt16("value", 65535, 0);
  EXPECT_EQ(record.AsInt32("value", Fallback), 65535);
  EXPECT_EQ(record.AsInt32("Value", Fallback), Fallback);
}

TEST(RecordTest, IntegersAreReadAsTextThroughTheScratchArray) {
  zRecord record;
  record.SetInt32("low", std::numeric_limits<int>::min(), 0);
  record.SetUInt16("high", 65535, 0);
  record.SetCString("text", "as it is", 0);
  char scratch[64];

  EXPECT_STREQ(record.AsCString("low", "", &scratch), "-2147483648");
  EXPECT_STREQ(record.AsCString("high", "", &scratch), "65535");
  EXPECT_STREQ(record.AsCString("high", "no room", nullptr), "no room");
  EXPECT_STREQ(record.AsCString("text", "", nullptr), "as it is");
  EXPECT_EQ(record.AsCString("missing", nullptr, &scratch), nullptr);
}

TEST(RecordTest, NullArgumentsHaveNeutralMeanings) {
  zRecord record(nullptr);
  record.SetCString("title", nullptr, 0);
  record.SetInt32(nullptr, 1, 0);

  EXPECT_STREQ(record.Name(), "");
  EXPECT_THAT(record.Fields(), ElementsAre(zField{"title", std::string()}));
  EXPECT_EQ(record.AsInt32(nullptr, 3), 3);
}

TEST(RecordTest, ChildrenGoToTheirPositionsAndBeyondTheLastToTheEnd) {
  zRecord root;
  root.AddChild(new zRecord("b"), zRecord::AtEnd);
  root.AddChild(new zRecord("d"), 0x7FFFFFFF);
  root.AddChild(new zRecord("c"), 1);
  root.AddChild(new zRecord("a"), -5);
  root.AddChild(new zRecord("e"), 4);

  EXPECT_THAT(childNames(root), ElementsAre("a", "b", "c", "d", "e"));
  EXPECT_EQ(root.Child(5), nullptr);
}

TEST(RecordTest, AChildThatWouldBreakTheTreeIsRefused) {
  zRecord root("root");
  auto* const child = new zRecord("child");
  auto* const grandchild = new zRecord("grandchild");
  ASSERT_TRUE(root.AddChild(child, zRecord::AtEnd));
  ASSERT_TRUE(child->AddChild(grandchild, zRecord::AtEnd));

  EXPECT_FALSE(root.AddChild(nullptr, zRecord::AtEnd));
  EXPECT_FALSE(root.AddChild(&root, zRecord::AtEnd));
  EXPECT_FALSE(root.AddChild(grandchild, zRecord::AtEnd));
  EXPECT_FALSE(grandchild->AddChild(&root, zRecord::AtEnd));
  EXPECT_THAT(childNames(root), ElementsAre("child"));
}

TEST(RecordTest, TreesDifferWhereNameFieldTypeOrOrderDiffers) {
  const auto tree = [](const char* name, bool wide, bool swapped) {
    auto root = std::make_unique<zRecord>("root");
    auto* const first = new zRecord(name);
    wide ? first->SetInt32("value", 1, 0) : first->SetUInt16("value", 1, 0);
    root->AddChild(first, 0);
    root->AddChild(new zRecord("second"), swapped ? 0 : 1);
    return root;
  };

  EXPECT_TRUE(*tree("first", false, false) == *tree("first", false, false));
  EXPECT_FALSE(*tree("first", false, false) == *tree("First", false, false));
  EXPECT_FALSE(*tree("first", false, false) == *tree("first", true, false));
  EXPECT_FALSE(*tree("first", false, false) == *tree("first", false, true));
}

TEST(RecordTest, ATreeOfAMillionLevelsIsComparedAndDestroyed) {
  zRecord root;
  zRecord* deepest = &root;
  for (int level = 0; level < 1'000'000; ++level) {
    auto* const next = new zRecord("level");
    deepest->AddChild(next, zRecord::AtEnd);
    deepest = next;
  }

  EXPECT_TRUE(root == root);
  root.MakeEmpty();
  EXPECT_TRUE(root == zRecord());
}

}  // namespace

#include <lumora/zRecord.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using testing::ElementsAre;

TEST(RecordTest, SettingAFieldAgainReplacesValueAndTypeInItsPlace) {
  zRecord record("settings");
  record.SetCString("name", "Video FPS", 0);
  record.SetInt32("value", -1, 0);
  record.SetUInt16("name", 7, 0);
  record.SetCString("title", nullptr, 0);
  record.SetInt32(nullptr, 1, 0);

  EXPECT_THAT(record.Fields(), ElementsAre(zField{"name", std::uint16_t{7}}, zField{"value", std::int32_t{-1}},
                                           zField{"title", std::string()}));
}

TEST(RecordTest, TextsAreReadAsIntegersWhereTheyAreOneAndIntegersAsTexts) {
  constexpr int Fallback = -77;
  zRecord record;
  for (const char* const text : {"", "2147483648", " 12", "12 ", "+12", "1.0"}) {
    record.SetCString("value", text, 0);
    EXPECT_EQ(record.AsInt32("value", Fallback), Fallback) << '"' << text << '"';
  }
  record.SetCString("value", "-2147483648", 0);
  EXPECT_EQ(record.AsInt32("value", Fallback), std::numeric_limits<int>::min());
  EXPECT_EQ(record.AsInt32("Value", Fallback), Fallback);

  record.SetInt32("low", std::numeric_limits<int>::min(), 0);
  record.SetUInt16("high", 65535, 0);
  char scratch[64];
  EXPECT_EQ(record.AsInt32("high", Fallback), 65535);
  EXPECT_STREQ(record.AsCString("low", "", &scratch), "-2147483648");
  EXPECT_STREQ(record.AsCString("high", "no room", nullptr), "no room");
  EXPECT_STREQ(record.AsCString("value", "", nullptr), "-2147483648");
}

TEST(RecordTest, ChildrenGoToTheirPositionsAndThoseThatWouldBreakTheTreeAreRefused) {
  zRecord root;
  auto* const child = new zRecord("b");
  auto* const grandchild = new zRecord("grandchild");
  EXPECT_TRUE(root.AddChild(child, zRecord::AtEnd) && child->AddChild(grandchild, zRecord::AtEnd));
  root.AddChild(new zRecord("d"), 0x7FFFFFFF);
  root.AddChild(new zRecord("c"), 1);
  root.AddChild(new zRecord("a"), -5);

  EXPECT_FALSE(root.AddChild(nullptr, zRecord::AtEnd));
  EXPECT_FALSE(root.AddChild(&root, zRecord::AtEnd));
  EXPECT_FALSE(root.AddChild(grandchild, zRecord::AtEnd));
  EXPECT_FALSE(grandchild->AddChild(&root, zRecord::AtEnd));

  std::string names;
  for (unsigned int i = 0; i < root.ChildCount(); ++i) names += root.Child(i)->Name();
  EXPECT_EQ(names, "abcd");
}

TEST(RecordTest, TreesDifferWhereNameFieldTypeOrOrderDiffers) {
  zRecord root, other;
  for (zRecord* const tree : {&root, &other}) {
    tree->SetUInt16("value", 1, 0);
    tree->AddChild(new zRecord("first"), 0);
  }
  EXPECT_TRUE(root == other);
  EXPECT_FALSE(zRecord("first") == zRecord("First"));
  other.SetInt32("value", 1, 0);
  EXPECT_FALSE(root == other);
  other.SetUInt16("value", 1, 0);
  root.AddChild(new zRecord("second"), 0);
  other.AddChild(new zRecord("second"), 1);
  EXPECT_FALSE(root == other);
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

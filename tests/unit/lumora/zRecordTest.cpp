#include <gmock/gmock.h>
#include <lumora/zRecord.h>

#include <limits>

namespace {

TEST(RecordTest, SettingAFieldAgainReplacesValueAndTypeInItsPlace) {
  zRecord record;
  record.SetCString("name", "Video FPS", 0);
  record.SetInt32("value", -1, 0);
  record.SetUInt16("name", 7, 0);
  record.SetCString("title", nullptr, 0);
  record.SetInt32(nullptr, 1, 0);

  EXPECT_THAT(record.Fields(), testing::ElementsAre(zField{"name", std::uint16_t{7}}, zField{"value", std::int32_t{-1}},
                                                    zField{"title", std::string()}));
}

TEST(RecordTest, TextsAreReadAsIntegersWhereTheyAreOneAndIntegersAsTexts) {
  zRecord record;
  for (const char* const text : {"", "2147483648", " 12", "12 ", "+12", "1.0"}) {
    record.SetCString("value", text, 0);
    EXPECT_EQ(record.AsInt32("value", -77), -77) << '"' << text << '"';
  }
  record.SetCString("value", "-2147483648", 0);
  EXPECT_EQ(record.AsInt32("value", -77), std::numeric_limits<int>::min());
  EXPECT_EQ(record.AsInt32("Value", -77), -77);

  record.SetInt32("low", std::numeric_limits<int>::min(), 0);
  record.SetUInt16("high", 65535, 0);
  char scratch[64];
  EXPECT_EQ(record.AsInt32("high", -77), 65535);
  EXPECT_STREQ(record.AsCString("low", "", &scratch), "-2147483648");
  EXPECT_STREQ(record.AsCString("high", "no room", nullptr), "no room");
}

TEST(RecordTest, ChildrenAreOrderedAndTakenOnceAndTreesAreEqualWhereAllOfThemIs) {
  const auto fill = [](zRecord& root, const char* name = "", const char* value = "") {
    for (const auto& [child, position] : {std::pair("c", zRecord::AtEnd), {"a", -1}, {"b", 1}, {"d", 3}}) {
      auto* const made = new zRecord(child);
      made->SetCString("value", child == std::string_view(name) ? value : child, 0);
      EXPECT_TRUE(root.AddChild(made, position));
    }
    return root.Child(0);
  };
  zRecord root, same;
  fill(root);
  auto* const below = new zRecord("e");
  EXPECT_TRUE(const_cast<zRecord*>(fill(same))->AddChild(below, 0));
  EXPECT_FALSE(root == same);
  for (zRecord* const refused : {static_cast<zRecord*>(nullptr), below, &same})
    EXPECT_FALSE(below->AddChild(refused, 0));
  zRecord lone;
  EXPECT_FALSE(lone.AddChild(&lone, 0));
  std::string names;
  for (unsigned i = 0; i < root.ChildCount(); ++i) names += root.Child(i)->Name();
  EXPECT_EQ(names, "abcd");
  EXPECT_EQ(root.Child(4), nullptr);

  zRecord deep;  // which goes without a stack of its own
  for (auto [outer, i] = std::pair(&deep, 0); i < 300'000; ++i) {
    auto* const inner = new zRecord;
    outer->AddChild(inner, 0);
    outer = inner;
  }
  same.MakeEmpty();
  EXPECT_TRUE(same == zRecord());
  fill(same);
  EXPECT_TRUE(root == same);
  for (const char* const name : {"a", "b", "d"}) {
    zRecord other;
    fill(other, name, "else");
    EXPECT_FALSE(root == other) << name;
  }
}

}  // namespace

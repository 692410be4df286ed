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

}  // namespace

#include <lumora/zBuffer.h>
#include <lumora/zMap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(MapTest, KeysAreUniqueAndIteratedInUnsignedOrder) {
  zMap<unsigned long long, int> map;
  map.Insert(std::numeric_limits<unsigned long long>::max(), 1);
  map.Insert(5, 2);
  map.Insert(0, 3);
  map.Insert(5, 4);

  EXPECT_THAT(map, ElementsAre(Pair(0, 3), Pair(5, 4), Pair(std::numeric_limits<unsigned long long>::max(), 1)));
  EXPECT_EQ(*map.Find(5), 4);
  EXPECT_TRUE(map.Erase(5));
  EXPECT_FALSE(map.Erase(5));
  EXPECT_FALSE(map.Contains(5));
  EXPECT_EQ(map.Size(), 2u);
}

TEST(BufferTest, AppendedBytesFollowEachOtherWhateverTheGrowth) {
  for (const unsigned int increment : {0u, 1u, 4096u}) {
    zBuffer buffer(0, increment);
    std::string expected;
    for (int i = 0; i < 200; ++i) {
      const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>(i));
      expected += piece;
      ASSERT_TRUE(buffer.Append(piece.data(), static_cast<unsigned int>(piece.size())));
    }
    ASSERT_TRUE(buffer.Append(buffer.Data(), buffer.Length()));  // Its own bytes, as it grows.

    EXPECT_EQ(std::string(buffer.Data(), buffer.Length()), expected + expected);
    buffer.MakeEmpty();
    EXPECT_EQ(buffer.Length(), 0u);
    EXPECT_STREQ(buffer.Data(), "");
  }
}

TEST(BufferTest, WhatCannotBeAppendedLeavesTheBufferAsItWas) {
  zBuffer buffer(0, 0);
  ASSERT_TRUE(buffer.Append("kept", 4));

  EXPECT_FALSE(buffer.Append(nullptr, 1));
  EXPECT_FALSE(buffer.Append("x", std::numeric_limits<unsigned int>::max()));
  EXPECT_TRUE(buffer.Append(nullptr, 0));
  EXPECT_STREQ(buffer.Data(), "kept");
}

}  // namespace

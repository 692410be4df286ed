#include <CoreMedia/CMTime.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int32_t kMaxScale = std::numeric_limits<std::int32_t>::max();

constexpr CMTime kPositiveInfinity = {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_PositiveInfinity, 0};
constexpr CMTime kNegativeInfinity = {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_NegativeInfinity, 0};
constexpr CMTime kIndefinite = {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_Indefinite, 0};

CMTime rounded(CMTime time) {
  time.flags |= kCMTimeFlags_HasBeenRounded;
  return time;
}

/// A time in a form that compares and prints.
std::string all(CMTime time) {
  return std::to_string(time.value) + '/' + std::to_string(time.timescale) + " flags " + std::to_string(time.flags);
}

TEST(CMTimeTest, ConversionRoundsHalfAwayFromZeroAndSaysSo) {
  const struct {
    CMTime from;
    std::int32_t timescale;
    CMTime expected;
  } cases[] = {
      {CMTimeMake(1001, 30000), 60000, CMTimeMake(2002, 60000)},
      {CMTimeMake(1, 2), 1, rounded(CMTimeMake(1, 1))},
      {CMTimeMake(-2, 3), 1, rounded(CMTimeMake(-1, 1))},
      {rounded(CMTimeMake(1, 2)), 4, rounded(CMTimeMake(2, 4))},
      // Products that only 128 bits hold.
      {CMTimeMake(kMax, kMaxScale), kMaxScale, CMTimeMake(kMax, kMaxScale)},
      {CMTimeMake(kMax - 1, 2), 1, CMTimeMake(kMax / 2, 1)},
      {CMTimeMake(kMax, 1), 2, kPositiveInfinity},
      {kCMTimeInvalid, 30, kCMTimeInvalid},
      {CMTimeMake(1, 1), 0, kCMTimeInvalid},
      {{1, 0, kCMTimeFlags_Valid, 0}, 30, kCMTimeInvalid},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(all(CMTimeConvertScale(c.from, c.timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero)),
              all(c.expected))
        << all(c.from) << " to " << c.timescale;
  }
  EXPECT_EQ(all(CMTimeMakeWithSeconds(-1.0 / 3, 600)), all(CMTimeMake(-200, 600)));
  EXPECT_EQ(all(CMTimeMakeWithSeconds(1e300, 600)), all(kPositiveInfinity));
}

TEST(CMTimeTest, TimesOfEveryKindSortInOneOrder) {
  // Each is smaller than all that follow.
  const CMTime sorted[] = {kNegativeInfinity, CMTimeMake(kMin, 1), CMTimeMake(kMin + 1, 1), CMTimeMake(-1, kMaxScale),
                           kCMTimeZero, CMTimeMake(1001, 30000), CMTimeMake(1, 29),
                           // A double cannot tell these two apart.
                           CMTimeMake(kMax - 1, kMaxScale), CMTimeMake(kMax, kMaxScale), kIndefinite, kPositiveInfinity,
                           kCMTimeInvalid};
  for (std::size_t i = 0; i < std::size(sorted); ++i) {
    for (std::size_t k = 0; k < std::size(sorted); ++k) {
      EXPECT_EQ(CMTimeCompare(sorted[i], sorted[k]), i < k ? -1 : (i > k ? 1 : 0)) << i << " and " << k;
    }
  }
  EXPECT_EQ(CMTimeCompare(CMTimeMake(1, 30), CMTimeMake(1000, 30000)), 0);
}

TEST(CMTimeTest, SumsAreExactOrMarkedAsRounded) {
  const struct {
    CMTime a, b, expected;
  } cases[] = {
      {CMTimeMake(1, 30), CMTimeMake(1, 25), CMTimeMake(11, 150)},
      // The common multiple is above 31 bits: ticks of the larger timescale.
      {CMTimeMake(1, kMaxScale), CMTimeMake(1, kMaxScale - 1), rounded(CMTimeMake(2, kMaxScale))},
      {CMTimeMake(kMax, 1), CMTimeMake(1, 1), kPositiveInfinity},
      {CMTimeMake(kMin + 1, 3), CMTimeMake(kMin + 1, 3), rounded(CMTimeMake(-6148914691236517205, 1))},
      {kPositiveInfinity, CMTimeMake(1, 1), kPositiveInfinity},
      {kPositiveInfinity, kNegativeInfinity, kCMTimeInvalid},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(all(CMTimeAdd(c.a, c.b)), all(c.expected)) << all(c.a) << " plus " << all(c.b);
    EXPECT_EQ(all(CMTimeAdd(c.b, c.a)), all(c.expected)) << all(c.b) << " plus " << all(c.a);
  }
}

}  // namespace

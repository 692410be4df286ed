#include <CoreMedia/CMTime.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int32_t kMaxScale = std::numeric_limits<std::int32_t>::max();

CMTime special(CMTimeFlags flags) {
  return {0, 0, kCMTimeFlags_Valid | flags, 0};
}

const CMTime kPositiveInfinity = special(kCMTimeFlags_PositiveInfinity);
const CMTime kNegativeInfinity = special(kCMTimeFlags_NegativeInfinity);
const CMTime kIndefinite = special(kCMTimeFlags_Indefinite);

CMTime inEpoch(CMTime time, CMTimeEpoch epoch) {
  time.epoch = epoch;
  return time;
}

CMTime rounded(CMTime time) {
  time.flags |= kCMTimeFlags_HasBeenRounded;
  return time;
}

}  // namespace

static bool operator==(const CMTime& a, const CMTime& b) {
  return a.value == b.value && a.timescale == b.timescale && a.flags == b.flags && a.epoch == b.epoch;
}

static std::ostream& operator<<(std::ostream& out, const CMTime& time) {
  return out << time.value << '/' << time.timescale << " flags " << time.flags << " epoch " << time.epoch;
}

TEST(CMTimeTest, ConversionRoundsHalfAwayFromZeroAndSaysSo) {
  const struct {
    CMTime from;
    std::int32_t timescale;
    CMTime expected;
  } cases[] = {
      {CMTimeMake(1001, 30000), 60000, CMTimeMake(2002, 60000)},
      {CMTimeMake(1, 2), 1, rounded(CMTimeMake(1, 1))},
      {CMTimeMake(-1, 2), 1, rounded(CMTimeMake(-1, 1))},
      {CMTimeMake(1, 3), 1, rounded(CMTimeMake(0, 1))},
      {CMTimeMake(-2, 3), 1, rounded(CMTimeMake(-1, 1))},
      {rounded(CMTimeMake(1, 2)), 4, rounded(CMTimeMake(2, 4))},
      {inEpoch(CMTimeMake(3, 1), 5), 2, inEpoch(CMTimeMake(6, 2), 5)},
      // Products that only 128 bits hold.
      {CMTimeMake(kMax, kMaxScale), kMaxScale, CMTimeMake(kMax, kMaxScale)},
      {CMTimeMake(kMax - 1, 2), 1, CMTimeMake(kMax / 2, 1)},
      {CMTimeMake(kMax, 1), 2, kPositiveInfinity},
      {CMTimeMake(kMin, 1), 2, kNegativeInfinity},
      {kPositiveInfinity, 30, kPositiveInfinity},
      {kIndefinite, 30, kIndefinite},
      {kCMTimeInvalid, 30, kCMTimeInvalid},
      {CMTimeMake(1, 1), 0, kCMTimeInvalid},
      {CMTimeMake(1, 1), -30, kCMTimeInvalid},
      {{1, 0, kCMTimeFlags_Valid, 0}, 30, kCMTimeInvalid},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CMTimeConvertScale(c.from, c.timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero), c.expected)
        << c.from << " to " << c.timescale;
  }
}

TEST(CMTimeTest, TimesOfEveryKindSortInOneOrder) {
  // Each is smaller than all that follow.
  const CMTime sorted[] = {
      kNegativeInfinity,
      inEpoch(CMTimeMake(kMax, 1), -1),
      CMTimeMake(kMin, 1),
      CMTimeMake(kMin + 1, 1),
      CMTimeMake(-1, kMaxScale),
      kCMTimeZero,
      CMTimeMake(1001, 30000),
      CMTimeMake(1, 29),
      // A double cannot tell these two apart.
      CMTimeMake(kMax - 1, kMaxScale),
      CMTimeMake(kMax, kMaxScale),
      inEpoch(CMTimeMake(kMin, 1), 1),
      kIndefinite,
      kPositiveInfinity,
      kCMTimeInvalid,
  };
  for (std::size_t i = 0; i < std::size(sorted); ++i) {
    for (std::size_t k = 0; k < std::size(sorted); ++k) {
      EXPECT_EQ(CMTimeCompare(sorted[i], sorted[k]), i < k ? -1 : (i > k ? 1 : 0)) << sorted[i] << " and " << sorted[k];
    }
  }
  EXPECT_EQ(CMTimeCompare(CMTimeMake(1, 30), CMTimeMake(1000, 30000)), 0);
}

TEST(CMTimeTest, SumsAreExactOrMarkedAsRounded) {
  const struct {
    CMTime a;
    CMTime b;
    CMTime expected;
  } cases[] = {
      {CMTimeMake(1, 30), CMTimeMake(1, 25), CMTimeMake(11, 150)},
      {CMTimeMake(2, 30), CMTimeMake(-1, 30), CMTimeMake(1, 30)},
      // The common multiple is above 31 bits: ticks of the larger timescale.
      {CMTimeMake(1, kMaxScale), CMTimeMake(1, kMaxScale - 1), rounded(CMTimeMake(2, kMaxScale))},
      {CMTimeMake(kMax, 4), CMTimeMake(kMax, 4), CMTimeMake(kMax, 2)},
      {CMTimeMake(kMax, 1), CMTimeMake(1, 1), kPositiveInfinity},
      {CMTimeMake(kMin, 1), CMTimeMake(-1, 1), kNegativeInfinity},
      {CMTimeMake(kMin + 1, 3), CMTimeMake(kMin + 1, 3), rounded(CMTimeMake(-6148914691236517205, 1))},
      {inEpoch(CMTimeMake(1, 1), 3), CMTimeMake(1, 1), inEpoch(CMTimeMake(2, 1), 3)},
      {inEpoch(CMTimeMake(1, 1), 3), inEpoch(CMTimeMake(1, 1), 4), kCMTimeInvalid},
      {kPositiveInfinity, CMTimeMake(1, 1), kPositiveInfinity},
      {CMTimeMake(1, 1), kNegativeInfinity, kNegativeInfinity},
      {kPositiveInfinity, kNegativeInfinity, kCMTimeInvalid},
      {kIndefinite, kPositiveInfinity, kIndefinite},
      {kCMTimeInvalid, kIndefinite, kCMTimeInvalid},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CMTimeAdd(c.a, c.b), c.expected) << c.a << " plus " << c.b;
    EXPECT_EQ(CMTimeAdd(c.b, c.a), c.expected) << c.b << " plus " << c.a;
  }
}

TEST(CMTimeTest, SecondsBecomeTheNearestTick) {
  const double infinity = std::numeric_limits<double>::infinity();
  const struct {
    double seconds;
    std::int32_t timescale;
    CMTime expected;
  } cases[] = {
      {0.1, 10, CMTimeMake(1, 10)},         {-2.5, 1, rounded(CMTimeMake(-3, 1))},
      {1.0 / 3, 600, CMTimeMake(200, 600)}, {1e10, kMaxScale, CMTimeMake(5368709110000000000, kMaxScale / 4)},
      {1e300, 600, kPositiveInfinity},      {-infinity, 600, kNegativeInfinity},
      {std::nan(""), 600, kCMTimeInvalid},  {1, 0, kCMTimeInvalid},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CMTimeMakeWithSeconds(c.seconds, c.timescale), c.expected) << c.seconds << " at " << c.timescale;
  }
  EXPECT_EQ(CMTimeGetSeconds(kNegativeInfinity), -infinity);
  EXPECT_TRUE(std::isnan(CMTimeGetSeconds(kIndefinite)));
  EXPECT_TRUE(std::isnan(CMTimeGetSeconds({1, 0, kCMTimeFlags_Valid, 0})));
}

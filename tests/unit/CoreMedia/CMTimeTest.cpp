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

CMTime rounded(std::int64_t value, std::int32_t timescale) {
  return {value, timescale, kCMTimeFlags_Valid | kCMTimeFlags_HasBeenRounded, 0};
}

CMTime inEpoch(CMTimeEpoch epoch, std::int64_t seconds) {
  return {seconds, 1, kCMTimeFlags_Valid, epoch};
}

/// A time in a form that compares and prints.
std::string all(CMTime time) {
  return std::to_string(time.value) + '/' + std::to_string(time.timescale) + " flags " + std::to_string(time.flags) +
         " epoch " + std::to_string(time.epoch);
}

TEST(CMTimeTest, ConversionRoundsHalfAwayFromZeroAndSaysSo) {
  const CMTime cases[][2] = {
      {CMTimeMake(1001, 30000), CMTimeMake(2002, 60000)},
      {CMTimeMake(1, 2), rounded(1, 1)},
      {CMTimeMake(-1, 2), rounded(-1, 1)},
      {rounded(1, 2), rounded(2, 4)},
      {CMTimeMake(kMax, kMaxScale), CMTimeMake(kMax, kMaxScale)},  // a product that only 128 bits hold
  };
  const auto convert = [](CMTime time, std::int32_t timescale) {
    return all(CMTimeConvertScale(time, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero));
  };
  for (const auto& [from, to] : cases) EXPECT_EQ(convert(from, to.timescale), all(to)) << all(from);
  EXPECT_EQ(convert(CMTimeMake(kMax, 1), 2), all(kPositiveInfinity));
  EXPECT_EQ(convert(CMTimeMake(1, 1), 0), all(kCMTimeInvalid));
  EXPECT_EQ(all(CMTimeMakeWithSeconds(-1.0 / 3, 600)), all(CMTimeMake(-200, 600)));
  EXPECT_EQ(all(CMTimeMakeWithSeconds(1e300, 600)), all(kPositiveInfinity));
}

TEST(CMTimeTest, TimesAreComparedExactlyWhateverTheirTimescales) {
  EXPECT_EQ(CMTimeCompare(CMTimeMake(1, 30), CMTimeMake(1000, 30000)), 0);
  EXPECT_EQ(CMTimeCompare(CMTimeMake(1001, 30000), CMTimeMake(1, 30)), 1);
  // A double could not tell these two apart.
  EXPECT_EQ(CMTimeCompare(CMTimeMake(kMax - 1, kMaxScale), CMTimeMake(kMax, kMaxScale)), -1);
  EXPECT_EQ(CMTimeCompare(CMTimeMake(kMin, 1), CMTimeMake(-1, kMaxScale)), -1);
  EXPECT_EQ(CMTimeCompare(kPositiveInfinity, CMTimeMake(kMax, 1)), 1);
  EXPECT_EQ(CMTimeCompare(kNegativeInfinity, CMTimeMake(kMin, 1)), -1);
  EXPECT_EQ(CMTimeCompare(inEpoch(2, 1), inEpoch(1, 2)), 1);
}

TEST(CMTimeTest, SumsAreExactOrMarkedAsRounded) {
  const CMTime cases[][3] = {{CMTimeMake(1, 30), CMTimeMake(1, 25), CMTimeMake(11, 150)},
                             // The common multiple is above 31 bits: ticks of the larger timescale.
                             {CMTimeMake(1, kMaxScale), CMTimeMake(1, kMaxScale - 1), rounded(2, kMaxScale)},
                             {CMTimeMake(kMax, 1), CMTimeMake(1, 1), kPositiveInfinity},
                             {kPositiveInfinity, kNegativeInfinity, kCMTimeInvalid},
                             // A duration, of epoch 0, is added to a time of any epoch.
                             {inEpoch(1, 5), CMTimeMake(1, 1), inEpoch(1, 6)},
                             {CMTimeMake(1, 1), inEpoch(2, 5), inEpoch(2, 6)},
                             {inEpoch(1, 5), inEpoch(1, 5), inEpoch(1, 10)},
                             {inEpoch(1, 5), inEpoch(2, 5), kCMTimeInvalid}};
  for (const auto& [a, b, sum] : cases) EXPECT_EQ(all(CMTimeAdd(a, b)), all(sum)) << all(a) << " plus " << all(b);
}

}  // namespace

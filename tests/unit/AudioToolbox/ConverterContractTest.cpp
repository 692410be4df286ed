#include <limits>
#include <random>
#include <utility>

#include "Conversion.h"

namespace {

// The three kinds of way through the converter: a copy, sample by sample, and a change of rate in both precisions and
// with interpolated filters.
TEST(AudioConverter, GivesTheSameBytesHoweverItIsFedAndAskedAndAfterAReset) {
  const std::pair<Description, Description> ways[] = {
      {of<SInt16>(44100, 2), of<SInt16>(44100, 2)},
      {pcm(48000, 3, 24, kIntFlags | kPlanar), pcm(48000, 3, 24, kIntFlags | kPlanar)},
      {of<float>(48000, 2, kPlanar), of<SInt16>(48000, 3)},
      {of<float>(48000, 2), of<float>(48000, 1)},
      {of<float>(48000, 2), of<SInt16>(44100, 2)},
      {of<float>(96000, 3, kPlanar), of<SInt16>(44100, 3, kPlanar)},
      {of<SInt16>(8000, 1), of<SInt16>(44100, 2)},
      {of<float>(16000, 1), of<float>(44100, 1)},  // two cycles at a time, where they are asked for
      {of<float>(192000, 1), of<float>(8000, 1)},
      {pcm(48000, 2, 24, kIntFlags), of<SInt32>(44100, 2)},
      {of<float>(48000, 2), of<float>(44056, 2)},
  };
  for (const auto& [source, destination] : ways) {
    SCOPED_TRACE(&source - &ways[0].first);
    std::mt19937 random(3);
    Bytes noise(6000 * source.mChannelsPerFrame * sizeof(SInt16));
    for (std::byte& byte : noise) byte = static_cast<std::byte>(random());
    const Buffers in = convert(of<SInt16>(source.mSampleRate, source.mChannelsPerFrame), source, {noise});
    const Buffers whole = convert(source, destination, in, 0, 50000);
    Converter converter(source, destination);
    Buffers out;
    for (const auto& [chunk, request] : {std::pair<size_t, size_t>{1, 4096}, {7, 13}, {480, 441}, {6000, 1}}) {
      Feed feed{.format = source, .buffers = in, .chunk = chunk};
      Buffers all;
      ASSERT_EQ(converter.fillFrom(feed, request, all), noErr);
      ASSERT_EQ(all, whole) << chunk << " in, " << request << " out";

      const size_t calls = feed.calls;
      EXPECT_EQ(converter.fill(feed, 100, out), noErr);
      EXPECT_TRUE(out[0].empty());
      EXPECT_EQ(feed.calls, calls) << "it asks no more once the input has ended";

      AudioConverterReset(converter.get());
      Feed begun{.format = source, .buffers = in};
      ASSERT_EQ(converter.fill(begun, request, out), noErr);  // so that most of the resets find input held
      AudioConverterReset(converter.get());
    }

    Feed live{.format = source, .buffers = in, .statusAtEnd = kNoMoreForNow, .available = 0};
    Buffers pieces;
    EXPECT_EQ(converter.fill(live, 0, out), noErr) << "no memory is needed for no frames";
    for (; live.available < 6000; live.available += 250) {
      EXPECT_EQ(converter.fillFrom(live, 60000, pieces), kNoMoreForNow);
    }
    live.statusAtEnd = noErr;
    EXPECT_EQ(converter.fillFrom(live, 60000, pieces), noErr);
    EXPECT_EQ(pieces, whole) << "with a seam where the callback had no more for now";
  }
}

TEST(RateConversion, IsNotPoisonedByInfinitiesAndNaN) {
  std::vector<float> bad = sine<float>(997, 48000, 4800, 0.5, 0), silent = bad;
  for (size_t n = 0; n < bad.size(); n += 7) {
    bad[n] = n % 2 ? std::numeric_limits<float>::quiet_NaN() : -std::numeric_limits<float>::infinity();
    silent[n] = 0;
  }
  withEveryInstructionSet([&] { EXPECT_EQ(resample(48000, 44100, bad), resample(48000, 44100, silent)); });
}

TEST(RateConversion, OfTwoChannelsIsThatOfEachAlone) {
  withEveryInstructionSet([] {
    for (const double rate : {48000, 22050, 192000}) {
      const auto left = sine<float>(997, rate, 7000, 0.5, 0.3);
      std::vector<float> both;
      for (const float sample : left) both.insert(both.end(), {sample, -0.5f * sample});
      const auto alone = resample(rate, 44100, left);
      const Bytes bytes = convert(of<float>(rate, 2), of<float>(44100, 2), {bytesOf(both)}, 512)[0];
      const auto* samples = reinterpret_cast<const float*>(bytes.data());
      ASSERT_EQ(bytes.size(), 2 * alone.size() * sizeof(float));
      for (size_t i = 0; i < alone.size(); ++i) {
        ASSERT_NEAR(samples[2 * i], alone[i], 2e-6) << rate << ' ' << i;
        ASSERT_NEAR(samples[2 * i + 1], -0.5 * alone[i], 2e-6) << rate << ' ' << i;
      }
    }
  });
}

}  // namespace

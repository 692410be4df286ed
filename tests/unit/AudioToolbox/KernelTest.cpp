#include <AudioToolbox/Resampler.h>
#include <AudioToolbox/SampleReader.h>
#include <AudioToolbox/SampleWriter.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <thread>

using namespace AudioConversion;

// Whole conversions are held against their definition with the kernels that suit this processor; here these are held
// against their portable twins, at every length.

namespace {

template <typename Work>
std::vector<Work> noise(size_t count, double amplitude = 1) {
  std::mt19937 random(5);
  std::vector<Work> samples(count);
  for (Work& each : samples) each = static_cast<Work>(amplitude * (std::ldexp(random(), -31) - 1));
  return samples;
}

template <typename Work>
void expectTwinsToReadAndWriteTheSame(const PCMFormat& format) {
  const size_t size = format.sample.containerBytes;
  std::mt19937 random(11);
  for (size_t frames = 1; frames <= 75; ++frames) {
    std::vector<std::byte> memory(2 * frames * size);  // of exactly the right size, for the sanitizers
    for (std::byte& byte : memory) byte = static_cast<std::byte>(random() & 0xBF);  // no NaN
    std::vector<Work> values(2 * frames);  // halves of a 16-bit step, beyond the limits, and no numbers at all
    for (Work& each : values) each = static_cast<Work>(std::ldexp(static_cast<double>(random() % 160000) - 80000, -16));
    if constexpr (std::is_same_v<Work, float>) values[frames / 2] = INFINITY, values[frames] = NAN;

    std::vector<Work> read[2];
    std::vector<std::byte> written[2];
    for (const bool isBest : {false, true}) {
      const InstructionSet set = isBest ? bestInstructionSet() : InstructionSet::Portable;
      read[isBest].resize(2 * frames);
      written[isBest].resize(memory.size());
      const std::byte* const in[] = {memory.data(), &memory[frames * size]};
      std::byte* const out[] = {written[isBest].data(), &written[isBest][frames * size]};
      Work* const to[] = {read[isBest].data(), &read[isBest][frames]};
      const Work* const from[] = {values.data(), &values[frames]};
      SampleReader<Work>(format, set).read(planesOf(format, in), frames, 2, to);
      SampleWriter<Work>(format, set).write(from, frames, planesOf(format, out));
    }
    ASSERT_TRUE(read[0] == read[1] && written[0] == written[1]) << frames;
  }
}

TEST(Kernels, ReadAndWriteAsTheirPlainTwins) {
  for (const bool isInterleaved : {false, true}) {
    PCMFormat format{.channels = 2, .interleaved = isInterleaved, .sample = {}};
    for (const unsigned bits : {16u, 24u, 32u}) {
      format.sample = {.kind = SampleKind::SignedInteger, .bits = bits, .containerBytes = bits / 8};
      expectTwinsToReadAndWriteTheSame<int32_t>(format);
      expectTwinsToReadAndWriteTheSame<float>(format);
    }
    format.sample.kind = SampleKind::Float;
    expectTwinsToReadAndWriteTheSame<float>(format);
  }
}

TEST(Kernels, FilterOneChannelOrTwoAsTheirPlainTwins) {
  for (const double rate : {48000, 22050, 192000}) {
    const FilterBank<float> bank(RateRatio::between(rate, 44100));
    const FilterRun<float> run{bank.cycle().data(), bank.cycle().size(), bank.reach()};
    const auto in0 = noise<float>(70000), in1 = noise<float>(70000, -0.5);
    std::vector<float> one[2], two[2][2];
    for (const bool isBest : {false, true}) {
      const auto& kernels = filterKernels<float>(isBest ? bestInstructionSet() : InstructionSet::Portable);
      for (auto* out : {&one[isBest], &two[isBest][0], &two[isBest][1]}) out->resize(4 * run.count);
      kernels.filterOne(run, in0.data(), one[isBest].data());
      kernels.filterTwo(run, in0.data(), in1.data(), two[isBest][0].data(), two[isBest][1].data());
    }
    size_t frames = 0;
    for (const auto& group : bank.cycle()) frames += group.frames;
    for (size_t i = 0; i < frames; ++i) {
      ASSERT_NEAR(one[0][i], one[1][i], 2e-6) << rate << ' ' << i;
      for (const auto& [channel0, channel1] : two) {
        ASSERT_NEAR(channel0[i], one[0][i], 2e-6) << rate << ' ' << i;
        ASSERT_NEAR(channel1[i], -0.5 * channel0[i], 2e-6) << rate << ' ' << i;
      }
    }
  }
}

TEST(Kernels, PredictAsTheirPlainTwins) {
  const PredictionKernels &plain = predictionKernels(InstructionSet::Portable),
                          &best = predictionKernels(bestInstructionSet());
  auto forward = noise<double>(91), backward = noise<double>(91, 0.3);
  const auto expected = plain.correlate(forward.data(), backward.data(), 91);
  const auto correlation = best.correlate(forward.data(), backward.data(), 91);
  EXPECT_NEAR(correlation.cross, expected.cross, 1e-12);
  EXPECT_NEAR(correlation.energy, expected.energy, 1e-12);

  auto plainForward = forward, plainBackward = backward;
  plain.reflect(plainForward.data(), plainBackward.data(), 91, 0.7);
  best.reflect(forward.data(), backward.data(), 91, 0.7);
  const auto weights = noise<double>(64);
  plain.predict(weights.data(), &plainForward[16]);
  best.predict(weights.data(), &forward[16]);
  for (size_t i = 0; i < 91; ++i) {
    ASSERT_NEAR(forward[i], plainForward[i], 1e-12) << i;
    ASSERT_NEAR(backward[i], plainBackward[i], 1e-12) << i;
  }
}

// What lies behind a stream's last frame has no part in it, unless it were infinite.
TEST(Resampler, KeepsNothingOfTheLoudestPieceThereIsAfterAReset) {
  Resampler<float> resampler(RateRatio::between(48000, 44100), 1);
  const auto resampleRise = [&](float to) {
    std::vector<float> result(300);
    float* const out[] = {result.data()};
    resampler.reset();
    resampler.makeRoom(250);
    for (unsigned n = 0; n < 250; ++n) resampler.tail(0)[n] = to * (static_cast<float>(n) / 250);
    resampler.append(250);
    resampler.produce(out, result.size());
    resampler.finish();
    return result;
  };
  const auto expected = resampleRise(0.5f);
  resampleRise(std::numeric_limits<float>::max());
  EXPECT_EQ(resampleRise(0.5f), expected);
}

TEST(EdgeExtension, StaysFiniteForTheLargestNumbersThereAre) {
  std::vector<double> samples(100 + 60);
  for (size_t n = 0; n < 100; ++n) samples[n] = (n % 3 ? 1 : -1) * 1e308;
  EdgeExtension(60).extendForward(samples.data(), 100, 60);
  for (double sample : samples) ASSERT_TRUE(std::isfinite(sample));
}

TEST(FilterBank, IsMadeOnceForAllThreadsThatNeedIt) {
  std::shared_ptr<const FilterBank<float>> banks[4];
  {
    std::vector<std::jthread> threads;
    for (auto& bank : banks) {
      threads.emplace_back([&] { bank = FilterBank<float>::forRatio(RateRatio::between(37800, 44100)); });
    }
  }
  for (const auto& bank : banks) EXPECT_EQ(bank, banks[0]);
}

}  // namespace

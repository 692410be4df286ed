#include <AudioToolbox/Resampler.h>
#include <AudioToolbox/SampleReader.h>
#include <AudioToolbox/SampleWriter.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <thread>

using namespace AudioConversion;

namespace {

// The format pairs of the converter's own tests run on whatever the processor has; here the two sets are held against
// each other.
template <typename Work>
void expectReadersAndWritersAgree(const PCMFormat& format) {
  std::mt19937 random(11);
  for (size_t frames = 0; frames <= 75; ++frames) {
    std::vector<std::vector<Work>> planes[2];
    std::vector<std::byte> written[2];  // of exactly the right size, for the sanitizers
    std::vector<std::byte> memory(frames * format.channels * format.sample.containerBytes);
    for (std::byte& byte : memory) byte = static_cast<std::byte>(random() & 0xBF);  // no NaN
    const std::byte* const in[kMaxChannels] = {memory.data()};
    for (const InstructionSet set : {InstructionSet::Portable, InstructionSet::AVX2}) {
      const bool second = set == InstructionSet::AVX2;
      planes[second].assign(format.channels, std::vector<Work>(frames));
      Work* pointers[kMaxChannels] = {};
      for (unsigned c = 0; c < format.channels; ++c) pointers[c] = planes[second][c].data();
      SampleReader<Work>(format, set).read(planesOf(format, in), frames, format.channels, pointers);

      written[second].resize(memory.size());
      std::byte* const out[kMaxChannels] = {written[second].data()};
      if constexpr (std::is_same_v<Work, float>) {
        for (auto& plane : planes[second]) {
          for (float& each : plane) each *= -2.2f;  // beyond the limits of integers, too
        }
      }
      SampleWriter<Work>(format, set).write(pointers, frames, planesOf(format, out));
    }
    ASSERT_EQ(planes[0], planes[1]) << frames;
    ASSERT_EQ(written[0], written[1]) << frames;
  }
}

TEST(Kernels, ReadAndWriteTheSameBitsForEveryLength) {
  if (bestInstructionSet() != InstructionSet::AVX2) GTEST_SKIP() << "this processor has one set only";
  for (const unsigned bits : {16u, 24u, 32u}) {
    for (const unsigned channels : {1u, 2u}) {
      PCMFormat format;
      format.channels = channels;
      format.sample = {.kind = SampleKind::SignedInteger, .bits = bits, .containerBytes = bits / 8};
      expectReadersAndWritersAgree<int32_t>(format);
      expectReadersAndWritersAgree<float>(format);
      format.sample.kind = SampleKind::Float;
      if (bits == 32) expectReadersAndWritersAgree<float>(format);
    }
  }
}

TEST(Kernels, ResampleAlikeWithinRounding) {
  if (bestInstructionSet() != InstructionSet::AVX2) GTEST_SKIP() << "this processor has one set only";
  for (const auto& [in, out] : {std::pair<double, double>{48000, 44100}, {44100, 48000}, {192000, 44100}}) {
    float results[2][3][1000] = {};  // of three channels: a pair and a single one
    for (const InstructionSet set : {InstructionSet::Portable, InstructionSet::AVX2}) {
      auto& result = results[set == InstructionSet::AVX2];
      Resampler<float> resampler(RateRatio::between(in, out), 3, set);
      std::mt19937 random(5);
      resampler.makeRoom(500);
      for (unsigned n = 0; n < 1500; ++n) {
        resampler.tail(n % 3)[n / 3] = std::ldexp(static_cast<float>(random() % 65536) - 32768, -15);
      }
      resampler.append(500);
      resampler.finish();
      float* planes[] = {result[0], result[1], result[2]};
      ASSERT_EQ(resampler.produce(planes, 1000), static_cast<size_t>(std::lround(500 * out / in)));
    }
    for (unsigned n = 0; n < 3000; ++n) {
      ASSERT_NEAR(results[0][n / 1000][n % 1000], results[1][n / 1000][n % 1000], 2e-6) << in << ' ' << n;
    }
  }
}

TEST(EdgeExtension, StaysFiniteForTheLargestNumbersThereAre) {
  std::vector<double> samples(100 + 60);
  for (size_t n = 0; n < 100; ++n) samples[n] = (n % 3 ? 1 : -1) * 1e308;
  EdgeExtension(60).extendForward(samples.data(), 100, 60);
  for (double sample : samples) ASSERT_TRUE(std::isfinite(sample));
}

TEST(FilterBank, IsMadeOnceForAllThreadsThatNeedIt) {
  const RateRatio ratio = RateRatio::between(37800, 44100);
  std::shared_ptr<const FilterBank<float>> banks[4];
  {
    std::vector<std::jthread> threads;
    for (auto& bank : banks) threads.emplace_back([&] { bank = FilterBank<float>::forRatio(ratio); });
  }
  for (const auto& bank : banks) EXPECT_EQ(bank, banks[0]);
}

}  // namespace

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
class Kernels : public testing::Test {
 protected:
  void SetUp() override {
    if (bestInstructionSet() != InstructionSet::AVX2) GTEST_SKIP() << "this processor has one set only";
  }
  std::mt19937 _random{11};

  template <typename Work>
  Work value() {
    if constexpr (std::is_same_v<Work, int32_t>) {
      return static_cast<int32_t>(static_cast<uint32_t>(_random()));
    } else {
      return static_cast<Work>(std::uniform_real_distribution<double>(-1.2, 1.2)(_random));
    }
  }

  template <typename Work>
  void expectReadersAndWritersAgree(const PCMFormat& format) {
    constexpr size_t kLongest = 75;
    for (size_t frames = 0; frames <= kLongest; ++frames) {
      // Of exactly the right size, for the sanitizers.
      std::vector<std::byte> memory(frames * format.channels * format.sample.containerBytes);
      for (std::byte& byte : memory) byte = static_cast<std::byte>(_random() & 0x7F);
      std::byte* const buffers[kMaxChannels] = {memory.data()};
      const OutputPlanes out = planesOf(format, buffers);
      const std::byte* const constBuffers[kMaxChannels] = {memory.data()};
      const InputPlanes in = planesOf(format, constBuffers);

      std::vector<std::vector<Work>> read[2];
      for (const InstructionSet set : {InstructionSet::Portable, InstructionSet::AVX2}) {
        auto& planes = read[set == InstructionSet::AVX2];
        planes.assign(format.channels, std::vector<Work>(frames));
        Work* pointers[kMaxChannels] = {};
        for (unsigned c = 0; c < format.channels; ++c) pointers[c] = planes[c].data();
        SampleReader<Work>(format, set).read(in, frames, format.channels, pointers);
      }
      ASSERT_EQ(read[0], read[1]) << frames;

      std::vector<std::vector<Work>> values(format.channels, std::vector<Work>(frames));
      const Work* pointers[kMaxChannels] = {};
      for (unsigned c = 0; c < format.channels; ++c) {
        for (Work& each : values[c]) each = value<Work>();
        pointers[c] = values[c].data();
      }
      SampleWriter<Work>(format, InstructionSet::Portable).write(pointers, frames, out);
      const std::vector<std::byte> portable = memory;
      SampleWriter<Work>(format, InstructionSet::AVX2).write(pointers, frames, out);
      ASSERT_EQ(memory, portable) << frames;
    }
  }
};

TEST_F(Kernels, ReadAndWriteTheSameBitsForEveryLength) {
  for (const unsigned bits : {16u, 24u, 32u}) {
    for (const unsigned channels : {1u, 2u}) {
      SCOPED_TRACE(testing::Message() << bits << " bits, " << channels << " channels");
      PCMFormat format;
      format.channels = channels;
      format.sample = {.kind = SampleKind::SignedInteger, .bits = bits, .containerBytes = bits / 8};
      expectReadersAndWritersAgree<int32_t>(format);
      expectReadersAndWritersAgree<float>(format);
      if (bits != 32) continue;
      format.sample.kind = SampleKind::Float;
      expectReadersAndWritersAgree<float>(format);
    }
  }
}

TEST_F(Kernels, ResampleAlikeWithinRounding) {
  for (const auto& [in, out] : {std::pair<double, double>{48000, 44100}, {44100, 48000}, {192000, 44100}}) {
    constexpr unsigned kChannels = 3;  // a pair and a single one
    std::vector<std::vector<float>> results[2];
    for (const InstructionSet set : {InstructionSet::Portable, InstructionSet::AVX2}) {
      Resampler<float> resampler(RateRatio::between(in, out), kChannels, set);
      auto& result = results[set == InstructionSet::AVX2];
      result.assign(kChannels, std::vector<float>(1000));
      std::mt19937 random(5);
      resampler.makeRoom(500);
      for (size_t n = 0; n < 500; ++n) {
        for (unsigned c = 0; c < kChannels; ++c) {
          resampler.tail(c)[n] = std::ldexp(static_cast<float>(random() % 65536) - 32768, -15);
        }
      }
      resampler.append(500);
      resampler.finish();
      float* planes[kChannels] = {result[0].data(), result[1].data(), result[2].data()};
      const size_t produced = resampler.produce(planes, 1000);
      ASSERT_EQ(produced, static_cast<size_t>(std::lround(500 * out / in)));
    }
    for (unsigned c = 0; c < kChannels; ++c) {
      for (size_t n = 0; n < 1000; ++n) ASSERT_NEAR(results[0][c][n], results[1][c][n], 2e-6) << in << ' ' << n;
    }
  }
}

TEST(EdgeExtension, GoesOnWithSinesInBothDirections) {
  constexpr size_t kCount = 90;
  constexpr size_t kReach = 61;  // not a multiple of any vector
  for (const double frequency : {0.0, 0.002, 0.02, 0.2, 0.45}) {
    const auto signal = [frequency](double n) {
      return 0.6 * std::cos(6.283185307179586 * frequency * n + 0.2) + 0.2 * std::sin(6.283185307179586 * 0.11 * n);
    };
    std::vector<double> samples(kReach + kCount + kReach + 1, 1e9);
    for (size_t n = 0; n < kCount; ++n) samples[kReach + n] = signal(static_cast<double>(n));
    EdgeExtension extension(kReach);
    extension.extendForward(&samples[kReach], kCount, kReach);
    extension.extendBackward(&samples[kReach], kCount, kReach);
    for (size_t n = 0; n < kReach + kCount + kReach; ++n) {
      // The filter hardly hears what is far from the edge, and no model is right for ever.
      const bool isNear = n + 10 >= kReach && n < kReach + kCount + 10;
      ASSERT_NEAR(samples[n], signal(static_cast<double>(n) - kReach), isNear ? 2e-3 : 0.1) << frequency << ' ' << n;
    }
    EXPECT_EQ(samples.back(), 1e9);
  }
}

TEST(EdgeExtension, HoldsTheLastSampleOfWhatIsTooShortToModel) {
  std::vector<float> samples = {9, 9, 0.25f, 0.5f, 9, 9};
  EdgeExtension extension(2);
  extension.extendForward(&samples[2], 2, 2);
  extension.extendBackward(&samples[2], 2, 2);
  EXPECT_EQ(samples, (std::vector<float>{0.25f, 0.25f, 0.25f, 0.5f, 0.5f, 0.5f}));
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

TEST(RateRatio, IsExactForWholeAndBrokenRates) {
  EXPECT_EQ(RateRatio::between(48000, 44100), (RateRatio{147, 160}));
  EXPECT_EQ(RateRatio::between(44100, 44100.5), (RateRatio{88201, 88200}));
  EXPECT_EQ(RateRatio::between(192000, 8000), (RateRatio{1, 24}));
}

}  // namespace

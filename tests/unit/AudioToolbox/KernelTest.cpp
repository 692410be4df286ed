#include <AudioToolbox/Resampler.h>
#include <AudioToolbox/SampleReader.h>
#include <AudioToolbox/SampleWriter.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <thread>

using namespace AudioConversion;

namespace {

std::vector<InstructionSet> setsOfThisProcessor() {
  if (bestInstructionSet() == InstructionSet::Portable) return {InstructionSet::Portable};
  return {InstructionSet::Portable, bestInstructionSet()};
}

// Channels of an interleaved format taken one by one are read and written sample by sample: the plain twin of what a
// set does with both at once, and with planes.
template <typename Work>
void expectFastWaysToBePlain(const SampleEncoding& sample, InstructionSet set) {
  const PCMFormat pairs{.channels = 2, .sample = sample};
  const PCMFormat planes{.channels = 2, .interleaved = false, .sample = sample};
  const PCMFormat single{.channels = 1, .sample = sample};
  const size_t bytes = sample.containerBytes;
  std::mt19937 random(11);
  for (size_t frames = 0; frames <= 75; ++frames) {
    std::vector<std::byte> memory(2 * frames * bytes);  // of exactly the right size, for the sanitizers
    for (std::byte& byte : memory) byte = static_cast<std::byte>(random() & 0xBF);  // no NaN
    std::vector<std::byte> plane[2];
    for (size_t i = 0; i < memory.size(); ++i) plane[i / bytes % 2].push_back(memory[i]);
    const std::byte* const interleaved[] = {memory.data()};
    const std::byte* const planar[] = {plane[0].data(), plane[1].data()};

    std::vector<Work> plain[2], fast[2];
    for (auto* values : {plain, fast}) values[0].resize(frames), values[1].resize(frames);
    Work* const out[] = {fast[0].data(), fast[1].data()};
    const SampleReader<Work> reader(pairs, set);
    for (unsigned c : {0u, 1u}) reader.readChannel(planesOf(pairs, interleaved), frames, c, plain[c].data());
    reader.read(planesOf(pairs, interleaved), frames, 2, out);
    ASSERT_TRUE(fast[0] == plain[0] && fast[1] == plain[1]) << frames;
    SampleReader<Work>(planes, set).read(planesOf(planes, planar), frames, 2, out);
    ASSERT_TRUE(fast[0] == plain[0] && fast[1] == plain[1]) << frames;

    if constexpr (std::is_same_v<Work, float>) {  // halves of a 16-bit step, beyond the limits, and no numbers at all
      for (auto& values : plain) {
        for (float& each : values) each = std::ldexp(static_cast<float>(random() % 160000) - 80000, -16);
        if (frames > 2) values[frames / 2] = INFINITY, values[frames - 1] = values[frames / 3] = NAN;
      }
    }
    const Work* const values[] = {plain[0].data(), plain[1].data()};
    std::vector<std::byte> expected(memory.size()), expectedPlane[2];
    for (unsigned c : {0u, 1u}) {
      OutputPlanes every2nd{.channel = {expected.data() + c * bytes}, .stride = 2 * bytes};
      SampleWriter<Work>(single, set).write(values + c, frames, every2nd);
    }
    for (size_t i = 0; i < expected.size(); ++i) expectedPlane[i / bytes % 2].push_back(expected[i]);
    std::byte* const toMemory[] = {memory.data()};
    std::byte* const toPlanes[] = {plane[0].data(), plane[1].data()};
    SampleWriter<Work>(pairs, set).write(values, frames, planesOf(pairs, toMemory));
    SampleWriter<Work>(planes, set).write(values, frames, planesOf(planes, toPlanes));
    ASSERT_TRUE(memory == expected && plane[0] == expectedPlane[0] && plane[1] == expectedPlane[1]) << frames;
  }
}

TEST(Kernels, ReadAndWriteAsSampleBySample) {
  for (const InstructionSet set : setsOfThisProcessor()) {
    for (const unsigned bits : {16u, 24u, 32u}) {
      SampleEncoding sample{.kind = SampleKind::SignedInteger, .bits = bits, .containerBytes = bits / 8};
      expectFastWaysToBePlain<int32_t>(sample, set);
      expectFastWaysToBePlain<float>(sample, set);
      sample.kind = SampleKind::Float;
      if (bits == 32) expectFastWaysToBePlain<float>(sample, set);
    }
  }
}

std::vector<double> noise(size_t count, double amplitude = 1) {
  std::mt19937 random(5);
  std::vector<double> samples(count);
  for (double& each : samples) each = amplitude * (std::ldexp(random(), -31) - 1);
  return samples;
}

template <typename Work>
void expectFiltersToBePlainSums(double from, double to, InstructionSet set) {
  const FilterBank<Work> bank(RateRatio::between(from, to));
  const auto noise0 = noise(70000), noise1 = noise(70000, -0.5);
  const std::vector<Work> in0(noise0.begin(), noise0.end()), in1(noise1.begin(), noise1.end());
  const FilterRun<Work> run{bank.cycle().data(), bank.cycle().size(), bank.reach()};
  std::vector<Work> one(4 * run.count), two[2] = {one, one};
  filterKernels<Work>(set).filterOne(run, in0.data(), one.data());
  filterKernels<Work>(set).filterTwo(run, in0.data(), in1.data(), two[0].data(), two[1].data());

  size_t output = 0, start = 0;
  for (const auto& group : bank.cycle()) {
    for (size_t i = 0; i < group.frames; ++i, ++output) {
      double sum0 = 0, sum1 = 0;
      for (size_t t = 0; t < run.reach; ++t) {
        sum0 += static_cast<double>(group.coefficients[i * run.reach + t] * in0[start + t]);
        sum1 += static_cast<double>(group.coefficients[i * run.reach + t] * in1[start + t]);
      }
      ASSERT_NEAR(one[output], sum0, 2e-6) << from << ' ' << output;
      ASSERT_NEAR(two[0][output], sum0, 2e-6) << from << ' ' << output;
      ASSERT_NEAR(two[1][output], sum1, 2e-6) << from << ' ' << output;
    }
    start += group.step();
  }
}

TEST(Kernels, FilterAsAPlainSum) {
  for (const InstructionSet set : setsOfThisProcessor()) {
    for (const auto& [from, to] : {std::pair<double, double>{48000, 44100}, {22050, 44100}, {192000, 44100}}) {
      expectFiltersToBePlainSums<float>(from, to, set);
      expectFiltersToBePlainSums<double>(from, to, set);
    }
  }
}

TEST(Kernels, PredictAsAPlainSum) {
  for (const InstructionSet set : setsOfThisProcessor()) {
    const PredictionKernels& kernels = predictionKernels(set);
    auto forward = noise(91), backward = noise(91, 0.3);
    double cross = 0, energy = 0;
    for (size_t i = 0; i < 91; ++i) {
      cross += forward[i] * backward[i];
      energy += forward[i] * forward[i] + backward[i] * backward[i];
    }
    const auto correlation = kernels.correlate(forward.data(), backward.data(), 91);
    EXPECT_NEAR(correlation.cross, cross, 1e-12);
    EXPECT_NEAR(correlation.energy, energy, 1e-12);

    const auto oldForward = forward, oldBackward = backward;
    kernels.reflect(forward.data(), backward.data(), 91, 0.7);
    for (size_t i = 0; i < 91; ++i) {
      ASSERT_NEAR(forward[i], oldForward[i] + 0.7 * oldBackward[i], 1e-12);
      ASSERT_NEAR(backward[i], oldBackward[i] + 0.7 * oldForward[i], 1e-12);
    }

    const auto weights = noise(64);
    auto samples = noise(20, 0.9);
    double next[4] = {};
    for (size_t i = 0; i < 64; ++i) next[i % 4] += weights[i] * samples[i / 4];
    kernels.predict(weights.data(), &samples[16]);
    for (size_t i = 0; i < 4; ++i) EXPECT_NEAR(samples[16 + i], next[i], 1e-12);
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
  const RateRatio ratio = RateRatio::between(37800, 44100);
  std::shared_ptr<const FilterBank<float>> banks[4];
  {
    std::vector<std::jthread> threads;
    for (auto& bank : banks) threads.emplace_back([&] { bank = FilterBank<float>::forRatio(ratio); });
  }
  for (const auto& bank : banks) EXPECT_EQ(bank, banks[0]);
}

}  // namespace

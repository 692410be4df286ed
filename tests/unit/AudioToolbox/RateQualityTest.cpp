#include "Conversion.h"

namespace {

constexpr OSStatus kNoMoreForNow = 0x6E6F6D6F;  // 'nomo', known to these tests alone
constexpr double kMinus1dB = 0.8912509381337456;

double decibels(double ratio) {
  return 20 * std::log10(ratio);
}

struct SineFit {
  double amplitude;
  double residual;  ///< root mean square, times the square root of 2: comparable with an amplitude
  double signalToRest() const { return decibels(amplitude / residual); }
};

// The least-squares fit of a sine of known frequency.
SineFit fitSine(const std::vector<double>& samples, double frequency, double rate) {
  double cc = 0, ss = 0, cs = 0, xc = 0, xs = 0;
  const auto at = [&](size_t n) {
    return 2 * std::numbers::pi * std::fmod(frequency / rate * static_cast<double>(n), 1.0);
  };
  for (size_t n = 0; n < samples.size(); ++n) {
    const double c = std::cos(at(n)), s = std::sin(at(n));
    cc += c * c, ss += s * s, cs += c * s, xc += samples[n] * c, xs += samples[n] * s;
  }
  const double determinant = cc * ss - cs * cs;
  const double a = (xc * ss - xs * cs) / determinant;
  const double b = (xs * cc - xc * cs) / determinant;
  double rest = 0;
  for (size_t n = 0; n < samples.size(); ++n) {
    const double error = samples[n] - a * std::cos(at(n)) - b * std::sin(at(n));
    rest += error * error;
  }
  return {std::hypot(a, b), std::sqrt(2 * rest / static_cast<double>(samples.size()))};
}

// Half a second of the middle of a stream: what lies between two sines that have settled.
std::vector<double> middle(const std::vector<double>& samples) {
  const auto quarter = static_cast<std::ptrdiff_t>(samples.size() / 4);
  return {samples.begin() + quarter, samples.end() - quarter};
}

template <typename In, typename Out>
std::vector<double> convertSine(const AudioStreamBasicDescription& source,
                                const AudioStreamBasicDescription& destination, double frequency, double amplitude) {
  const size_t channels = source.mChannelsPerFrame;
  const auto frames = static_cast<size_t>(source.mSampleRate);
  std::vector<In> samples;
  for (double value : sine(frequency, source.mSampleRate, frames, amplitude, channels)) {
    const double full = std::is_integral_v<In> ? std::ldexp(1.0, sizeof(In) * 8 - 1) : 1.0;
    samples.push_back(static_cast<In>(std::is_integral_v<In> ? std::nearbyint(value * full) : value));
  }
  Feed feed{.format = source, .buffers = {bytesOf(samples)}, .chunk = 512};
  Converter converter(source, destination);
  const Buffers out = converter.convertAll(feed);
  const size_t outputs = destination.mChannelsPerFrame;
  return channelOf(samplesOf<Out>(out[0]), outputs - 1, outputs);
}

struct Quality {
  const char* name;
  AudioStreamBasicDescription source;
  std::vector<double> (*convert)(const AudioStreamBasicDescription&, const AudioStreamBasicDescription&, double,
                                 double);
  double leastSignalToRest;
};

class SixteenBitOutput : public testing::TestWithParam<Quality> {};

TEST_P(SixteenBitOutput, IsAsCleanAsSixteenBitsAllow) {
  const Quality& quality = GetParam();

  const auto out = quality.convert(quality.source, int16s(44100, 2), 997, kMinus1dB);

  EXPECT_NEAR(static_cast<double>(out.size()), 44100, 0);
  const SineFit fit = fitSine(middle(out), 997, 44100);
  EXPECT_GE(fit.signalToRest(), quality.leastSignalToRest);
  EXPECT_NEAR(decibels(fit.amplitude / 32768 / kMinus1dB), 0, 0.001);
}

INSTANTIATE_TEST_SUITE_P(Sources, SixteenBitOutput,
                         testing::Values(Quality{"Float48", floats(48000, 2), &convertSine<float, SInt16>, 97},
                                         Quality{"Int16At48", int16s(48000, 2), &convertSine<SInt16, SInt16>, 94},
                                         Quality{"Int32At96", pcm(96000, 2, 32, kIntFlags),
                                                 &convertSine<SInt32, SInt16>, 97},
                                         Quality{"Float192", floats(192000, 2), &convertSine<float, SInt16>, 97},
                                         Quality{"Float32k", floats(32000, 2), &convertSine<float, SInt16>, 97},
                                         Quality{"Float22k", floats(22050, 2), &convertSine<float, SInt16>, 97},
                                         Quality{"Mono16k", floats(16000, 1), &convertSine<float, SInt16>, 97},
                                         Quality{"Mono8k", floats(8000, 1), &convertSine<float, SInt16>, 97}),
                         [](const auto& test) { return test.param.name; });

struct Rates {
  const char* name;
  double in;
  double out;
};

class FilterShape : public testing::TestWithParam<Rates> {
 protected:
  double in() const { return GetParam().in; }
  double out() const { return GetParam().out; }
  // The edges of the filter move with the lower of the two Nyquist frequencies.
  double scaled(double frequencyAt44100) const { return frequencyAt44100 * std::min(in(), out()) / 44100; }
};

TEST_P(FilterShape, IsFlatAndPureUpToTheBandEdge) {
  for (const double frequency : {20.0, 1000.0, 10000.0, 18000.0, 19500.0, 20000.0}) {
    const double f = scaled(frequency);
    const auto result = convertSine<double, double>(doubles(in(), 1), doubles(out(), 1), f, 0.5);
    const SineFit fit = fitSine(middle(result), f, out());
    EXPECT_NEAR(decibels(fit.amplitude / 0.5), 0, 0.005) << f;
    EXPECT_GE(fit.signalToRest(), 120) << f;
  }
}

TEST_P(FilterShape, LetsNothingThroughThatWouldFold) {
  for (const double frequency : {23000.0, 23500.0, 24500.0, 30000.0, 43000.0, 44100.0, 66150.0}) {
    const double f = scaled(frequency);
    if (f >= in() / 2 || out() >= in()) continue;
    const auto result = middle(convertSine<float, float>(floats(in(), 1), floats(out(), 1), f, 1.0));
    double energy = 0;
    for (double sample : result) energy += sample * sample;
    EXPECT_LE(decibels(std::sqrt(2 * energy / static_cast<double>(result.size()))), -120) << f;
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, FilterShape,
                         testing::Values(Rates{"48To44", 48000, 44100}, Rates{"44To48", 44100, 48000},
                                         Rates{"96To44", 96000, 44100}, Rates{"192To44", 192000, 44100},
                                         Rates{"32To44", 32000, 44100}, Rates{"22To44", 22050, 44100},
                                         Rates{"16To44", 16000, 44100}, Rates{"8To44", 8000, 44100},
                                         Rates{"192To8", 192000, 8000}, Rates{"PrimeRatio", 48000, 44101},
                                         Rates{"PulledDown", 48000, 44100 / 1.001}),
                         [](const auto& test) { return test.param.name; });

// Output n is the input's signal at n * in / out, whatever the filter's delay.
TEST(RateConversion, KeepsTheSignalsTime) {
  for (const Rates& rates : {Rates{"", 48000, 44100}, {"", 8000, 44100}, {"", 192000, 44100}, {"", 48000, 44101}}) {
    const auto out = convertSine<double, double>(doubles(rates.in, 1), doubles(rates.out, 1), 997, 0.5);
    const auto ideal = sine(997, rates.out, out.size(), 0.5);
    double worst = 0;
    for (size_t n = out.size() / 4; n < out.size() * 3 / 4; ++n) worst = std::max(worst, std::abs(out[n] - ideal[n]));
    EXPECT_LE(decibels(worst / 0.5), -115) << rates.in << " to " << rates.out;
  }
}

// Buffers converted one by one must fit together: their ends are as good as their middles.
TEST(SingleBufferConversion, ContinuesTheSignalAtBothEnds) {
  Converter converter(floats(48000, 2), floats(44100, 2));
  for (const double frequency : {50.0, 440.0, 997.0, 3000.0, 10000.0, 18000.0}) {
    for (const double phase : {0.0, 0.7, 1.6, 3.0, 4.5}) {
      Feed feed{.format = floats(48000, 2),
                .buffers = {bytesOf(sine<float>(frequency, 48000, 1024, kMinus1dB, 2, phase))}};
      Buffers out;

      ASSERT_EQ(converter.fill(feed, 1024, out), noErr);
      ASSERT_EQ(AudioConverterReset(converter.get()), noErr);

      const auto samples = channelOf(samplesOf<float>(out[0]), 1, 2);
      ASSERT_EQ(samples.size(), 941u);  // 940.8
      const auto ideal = sine(frequency, 44100, samples.size(), kMinus1dB, 1, phase);
      double worst = 0;
      for (size_t n = 0; n < samples.size(); ++n) worst = std::max(worst, std::abs(samples[n] - ideal[n]));
      EXPECT_LE(decibels(worst / kMinus1dB), -75) << frequency << " Hz from " << phase;
    }
  }
}

TEST(ContinuousConversion, OwesAtMostAHundredFramesAfterAChunk) {
  for (const Rates& rates : {Rates{"", 48000, 44100}, Rates{"", 44100, 48000}}) {
    for (const size_t chunk : {64u, 480u, 1024u}) {
      Feed feed{.format = int16s(rates.in, 2), .buffers = {Bytes(4 * 20 * chunk)}, .statusAtEnd = kNoMoreForNow};
      Converter converter(feed.format, int16s(rates.out, 2));
      size_t produced = 0;
      for (feed.available = chunk; feed.available <= feed.frames(); feed.available += chunk) {
        Buffers out;
        ASSERT_EQ(converter.fill(feed, 4 * chunk, out), kNoMoreForNow);
        produced += out[0].size() / 4;
        const double due = static_cast<double>(feed.available) * rates.out / rates.in;
        EXPECT_LE(due - static_cast<double>(produced), 100);
      }
    }
  }
}

TEST(RateConversion, YieldsTheInputsLengthTimesTheRatioRounded) {
  struct Length {
    double in, out;
    size_t frames, expected;
  };
  for (const Length& length : {Length{48000, 44100, 1024, 941},
                               {48000, 44100, 1, 1},
                               {48000, 44100, 160, 147},
                               {44100, 48000, 1024, 1115},
                               {96000, 48000, 1, 1},
                               {96000, 48000, 3, 2},
                               {192000, 8000, 11, 0},
                               {192000, 8000, 12, 1},
                               {8000, 192000, 7, 168},
                               {48000, 44101, 48000, 44101},
                               {44100.5, 8000, 88201, 16000},
                               {48000, 44100, 0, 0}}) {
    Feed feed{.format = floats(length.in, 1), .buffers = {Bytes(4 * length.frames)}};
    Converter converter(feed.format, floats(length.out, 1));
    EXPECT_EQ(converter.convertAll(feed)[0].size() / 4, length.expected) << length.in << " " << length.frames;
  }
}

}  // namespace

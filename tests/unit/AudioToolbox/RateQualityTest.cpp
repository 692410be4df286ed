#include "Conversion.h"

namespace {

constexpr double kMinus1dB = 0.8912509381337456;
constexpr double kPhase = 0.3;

double decibels(double ratio) {
  return 20 * std::log10(ratio);
}

struct SineFit {
  double amplitude, phase;
  double residual;  ///< root mean square, times the square root of 2: comparable with an amplitude
  double signalToRest() const { return decibels(amplitude / residual); }
};

// The least-squares fit of a sine of known frequency to the middle of a stream: what lies between two sines that have
// settled.
template <typename Sample>
SineFit fitSine(const std::vector<Sample>& samples, double frequency, double rate) {
  const size_t begin = samples.size() / 4, end = samples.size() - begin;
  const auto sines = sine(frequency, rate, end, 1, 0);
  const auto cosines = sine(frequency, rate, end, 1, std::numbers::pi / 2);
  double cc = 0, ss = 0, cs = 0, xc = 0, xs = 0;
  for (size_t n = begin; n < end; ++n) {
    const double c = cosines[n], s = sines[n];
    cc += c * c, ss += s * s, cs += c * s, xc += samples[n] * c, xs += samples[n] * s;
  }
  const double determinant = cc * ss - cs * cs;
  const double a = (xc * ss - xs * cs) / determinant;
  const double b = (xs * cc - xc * cs) / determinant;
  double rest = 0;
  for (size_t n = begin; n < end; ++n) rest += std::pow(samples[n] - a * cosines[n] - b * sines[n], 2);
  return {std::hypot(a, b), std::atan2(a, b), std::sqrt(2 * rest / static_cast<double>(end - begin))};
}

/// A second of a sine through the converter.
template <typename In, typename Out = In>
std::vector<Out> convertSine(double from, double to, double frequency, double amplitude) {
  return resample<In, Out>(from, to, sine<In>(frequency, from, static_cast<size_t>(from), amplitude, kPhase));
}

TEST(RateConversion, ToSixteenBitsIsAsCleanAsTheyAllow) {
  for (const double rate : {48000, 96000, 192000, 32000, 22050, 16000, 8000}) {
    const SineFit fit = fitSine(convertSine<float, SInt16>(rate, 44100, 997, kMinus1dB), 997, 44100);
    EXPECT_GE(fit.signalToRest(), 97) << rate;
    EXPECT_NEAR(decibels(fit.amplitude / 32768 / kMinus1dB), 0, 0.001) << rate;
    EXPECT_GE(fitSine(convertSine<SInt16>(rate, 44100, 997, 32768 * kMinus1dB), 997, 44100).signalToRest(), 94) << rate;
  }
}

constexpr std::pair<double, double> kRates[] = {{48000, 44100}, {44100, 48000},        {96000, 44100}, {192000, 44100},
                                                {32000, 44100}, {22050, 44100},        {8000, 44100},  {192000, 8000},
                                                {48000, 44101}, {48000, 44100 / 1.001}};

TEST(RateConversion, KeepsLevelTimeAndPurityUpToTheBandEdgeAndLetsNothingThroughThatWouldFold) {
  for (const auto& [in, out] : kRates) {
    for (const double frequency : {20.0, 1000.0, 10000.0, 18000.0, 19500.0, 20000.0}) {
      // The edges of the filter move with the lower of the two Nyquist frequencies.
      const double f = frequency * std::min(in, out) / 44100;
      const SineFit fit = fitSine(convertSine<double>(in, out, f, 0.5), f, out);
      EXPECT_NEAR(decibels(fit.amplitude / 0.5), 0, 0.002) << f << ", " << in << " to " << out;
      EXPECT_NEAR(fit.phase, kPhase, 1e-6) << f << ", " << in << " to " << out;
      EXPECT_GE(fit.signalToRest(), 120) << f << ", " << in << " to " << out;
    }
    for (const double frequency : {23000.0, 23500.0, 24500.0, 30000.0, 43000.0, 44100.0, 66150.0}) {
      const double f = frequency * out / 44100;
      if (f >= in / 2 || out >= in) continue;
      const auto result = convertSine<float>(in, out, f, 1.0);
      double energy = 0;
      for (size_t n = result.size() / 4; n < result.size() * 3 / 4; ++n) energy += result[n] * result[n];
      EXPECT_LE(decibels(std::sqrt(4 * energy / static_cast<double>(result.size()))), -120) << f << ", from " << in;
    }
  }
}

// Buffers converted one by one must fit together: their ends are as good as their middles.
TEST(RateConversion, OfASingleBufferContinuesTheSignalAtBothEnds) {
  withEveryInstructionSet([] {
    for (const double frequency : {50.0, 440.0, 997.0, 3000.0, 10000.0, 18000.0}) {
      for (const double phase : {0.0, 0.7, 1.6, 3.0, 4.5}) {
        const auto out = resample(48000, 44100, sine<float>(frequency, 48000, 1024, kMinus1dB, phase));
        ASSERT_EQ(out.size(), 941u) << "its length times the ratio, rounded";
        const auto ideal = sine(frequency, 44100, out.size(), kMinus1dB, phase);
        double worst = 0;
        for (size_t n = 0; n < out.size(); ++n) worst = std::max(worst, std::abs(out[n] - ideal[n]));
        EXPECT_LE(decibels(worst / kMinus1dB), -75) << frequency << " Hz from " << phase;
      }
    }
  });
}

}  // namespace

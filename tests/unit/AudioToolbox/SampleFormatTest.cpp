#include <bit>
#include <limits>
#include <random>

#include "Conversion.h"

namespace {

struct NamedFormat {
  const char* name;
  UInt32 bits;
  AudioFormatFlags flags;
  UInt32 container;
  AudioStreamBasicDescription at(double rate, UInt32 channels, bool planar) const {
    return pcm(rate, channels, bits, flags | (planar ? kPlanar : 0), container);
  }
  bool isFloat() const { return flags & kAudioFormatFlagIsFloat; }
};

constexpr AudioFormatFlags kBig = kAudioFormatFlagIsBigEndian;
constexpr AudioFormatFlags kSigned = kAudioFormatFlagIsSignedInteger;
constexpr AudioFormatFlags kHigh = kAudioFormatFlagIsAlignedHigh;

constexpr NamedFormat kFormats[] = {
    {"Int8", 8, kIntFlags, 1},
    {"UInt8", 8, kAudioFormatFlagIsPacked, 1},
    {"Int16", 16, kIntFlags, 2},
    {"Int16Big", 16, kIntFlags | kBig, 2},
    {"Int24", 24, kIntFlags, 3},
    {"Int24Big", 24, kIntFlags | kBig, 3},
    {"Int32", 32, kIntFlags, 4},
    {"Int32Big", 32, kIntFlags | kBig, 4},
    {"Float32", 32, kFloatFlags, 4},
    {"Float32Big", 32, kFloatFlags | kBig, 4},
    {"Float64", 64, kFloatFlags, 8},
    {"Float64Big", 64, kFloatFlags | kBig, 8},
    {"Int24LowIn32", 24, kSigned, 4},
    {"Int24HighIn32", 24, kSigned | kHigh, 4},
    {"Int24HighIn32Big", 24, kSigned | kHigh | kBig, 4},
    {"Int16LowIn24", 16, kSigned, 3},
    {"UInt8HighIn16Big", 8, kHigh | kBig, 2},
};

// The plain way: one sample at a time, in double precision, from the words of the format's definition.
double decode(const NamedFormat& format, const std::byte* at) {
  uint64_t word = 0;
  for (UInt32 i = 0; i < format.container; ++i) {
    word = word << 8 | std::to_integer<uint64_t>(at[format.flags & kBig ? i : format.container - 1 - i]);
  }
  if (format.isFloat()) {
    return format.bits == 64 ? std::bit_cast<double>(word)
                             : static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(word)));
  }
  if (format.flags & kHigh) word >>= format.container * 8 - format.bits;
  const uint64_t range = uint64_t{1} << format.bits;
  auto value = static_cast<double>(word % range);
  if (!(format.flags & kSigned)) {
    value -= static_cast<double>(range / 2);
  } else if (value >= static_cast<double>(range / 2)) {
    value -= static_cast<double>(range);
  }
  return value / static_cast<double>(range / 2);
}

void encode(const NamedFormat& format, double value, std::byte* at) {
  uint64_t word = 0;
  if (format.isFloat()) {
    word = format.bits == 64 ? std::bit_cast<uint64_t>(value) : std::bit_cast<uint32_t>(static_cast<float>(value));
  } else {
    const double half = std::ldexp(1.0, static_cast<int>(format.bits) - 1);
    const double rounded = std::isnan(value) ? 0 : std::clamp(std::nearbyint(value * half), -half, half - 1);
    word = static_cast<uint64_t>(static_cast<int64_t>(rounded) + (format.flags & kSigned ? 0 : int64_t(half)));
    if (format.flags & kHigh) word <<= format.container * 8 - format.bits;
  }
  for (UInt32 i = 0; i < format.container; ++i) {
    at[format.flags & kBig ? format.container - 1 - i : i] = static_cast<std::byte>(word >> (8 * i));
  }
}

// Samples in every way worth converting: any value, values that lie half-way between two of another width, the limits.
Bytes randomSamples(const NamedFormat& format, size_t samples, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> inside(-1.1, 1.1);
  Bytes bytes(samples * format.container);
  const double special[] = {0.0, -1.0, 1.0, 32767.5 / 32768, -32768.5 / 32768, 8388607.5 / 8388608, 1e-9, -3.0, 7.0};
  for (size_t i = 0; i < samples; ++i) {
    double value = inside(random);
    if (i % 3 == 1) value = std::nearbyint(value * 65536) / 65536;  // ties of 16 bits
    if (i % 7 == 2) value = special[random() % std::size(special)];
    encode(format, value, &bytes[i * format.container]);
  }
  return bytes;
}

Buffers splitIntoBuffers(const Bytes& interleaved, size_t container, size_t channels, bool planar) {
  if (!planar) return {interleaved};
  Buffers planes(channels);
  for (size_t i = 0; i < interleaved.size(); i += container) {
    const auto at = interleaved.begin() + static_cast<std::ptrdiff_t>(i);
    Bytes& plane = planes[i / container % channels];
    plane.insert(plane.end(), at, at + static_cast<std::ptrdiff_t>(container));
  }
  return planes;
}

Buffers convert(const AudioStreamBasicDescription& source, const AudioStreamBasicDescription& destination,
                Buffers buffers, size_t chunk = 0) {
  Feed feed{.format = source, .buffers = std::move(buffers), .chunk = chunk};
  Converter converter(source, destination);
  return converter.convertAll(feed, 333);
}

TEST(SampleConversion, OfEveryPairOfFormatsIsExactToTheLastBit) {
  constexpr size_t kFrames = 777;
  struct Layout {
    UInt32 channels;
    bool sourcePlanar, destinationPlanar;
  };
  for (const Layout& layout : {Layout{2, false, false},
                               {2, true, false},
                               {2, false, true},
                               {1, false, false},
                               {5, true, false},
                               {8, false, true}}) {
    for (const NamedFormat& from : kFormats) {
      const Bytes samples = randomSamples(from, kFrames * layout.channels, layout.channels);
      for (const NamedFormat& to : kFormats) {
        Bytes expected(kFrames * layout.channels * to.container);
        for (size_t i = 0; i < kFrames * layout.channels; ++i) {
          encode(to, decode(from, &samples[i * from.container]), &expected[i * to.container]);
        }

        const auto out = convert(from.at(48000, layout.channels, layout.sourcePlanar),
                                 to.at(48000, layout.channels, layout.destinationPlanar),
                                 splitIntoBuffers(samples, from.container, layout.channels, layout.sourcePlanar), 100);

        ASSERT_EQ(out, splitIntoBuffers(expected, to.container, layout.channels, layout.destinationPlanar))
            << from.name << " to " << to.name << ", " << layout.channels << " channels";
      }
    }
  }
}

TEST(SampleConversion, IntoIntegersHoldsInfinitiesAtTheLimitsAndMakesNaNSilent) {
  const float infinity = std::numeric_limits<float>::infinity();
  // Long enough for the vector kernels as well as for what they leave over.
  std::vector<float> in;
  for (int i = 0; i < 23; ++i) in.insert(in.end(), {infinity, -infinity, std::nanf(""), 1e30f, -1e30f});
  for (const UInt32 bits : {8u, 16u, 24u, 32u}) {
    const auto out = convert(floats(48000, 1), pcm(48000, 1, bits, kIntFlags), {bytesOf(in)});
    const NamedFormat format{"", bits, kIntFlags, bits / 8};
    const double highest = 1 - std::ldexp(1.0, 1 - static_cast<int>(bits));
    for (size_t i = 0; i < in.size(); ++i) {
      const double expected[] = {highest, -1, 0, highest, -1};
      ASSERT_EQ(decode(format, &out[0][i * format.container]), expected[i % 5]) << bits << " bits, sample " << i;
    }
  }
}

TEST(SampleConversion, LeavesEveryBitOfAFloatAloneWhenOnlyTheLayoutChanges) {
  std::mt19937 random(7);
  std::vector<uint32_t> in(2 * 500);
  for (uint32_t& bits : in) bits = static_cast<uint32_t>(random());  // some of them NaN with a payload, or denormal
  const AudioStreamBasicDescription planar = pcm(48000, 2, 32, kFloatFlags | kPlanar);

  const Buffers planes = convert(floats(48000, 2), planar, {bytesOf(in)});

  EXPECT_EQ(convert(planar, floats(48000, 2), planes), Buffers{bytesOf(in)});
  EXPECT_EQ(convert(floats(48000, 2), floats(48000, 2), {bytesOf(in)}, 17), Buffers{bytesOf(in)});
}

struct Channels {
  const char* name;
  UInt32 in, out;
  AudioChannelLayoutTag layout;            ///< 0: none set
  std::vector<std::vector<double>> gains;  ///< [output][input]
};

class ChannelConversion : public testing::TestWithParam<Channels> {};

TEST_P(ChannelConversion, PutsEachChannelWhereItBelongs) {
  const Channels& channels = GetParam();
  Converter converter(doubles(48000, channels.in), doubles(48000, channels.out));
  if (channels.layout != 0) {
    const AudioChannelLayout layout{channels.layout, 0, 0};
    ASSERT_EQ(AudioConverterSetProperty(converter.get(), kAudioConverterInputChannelLayout, sizeof layout, &layout), 0);
  }
  // Frame n carries full scale in channel n alone.
  std::vector<double> in(channels.in * channels.in);
  for (UInt32 c = 0; c < channels.in; ++c) in[c * channels.in + c] = 1;
  Feed feed{.format = doubles(48000, channels.in), .buffers = {bytesOf(in)}};

  const auto out = samplesOf<double>(converter.convertAll(feed)[0]);

  for (UInt32 o = 0; o < channels.out; ++o) {
    double sum = 0;
    for (UInt32 i = 0; i < channels.in; ++i) {
      EXPECT_NEAR(out[i * channels.out + o], channels.gains[o][i], 1e-12) << "from " << i << " to " << o;
      sum += out[i * channels.out + o];
    }
    EXPECT_LE(sum, 1 + 1e-12);  // cannot clip
  }
}

constexpr double kC = 0.70710678118654752;
const double k51 = 1 / (1 + 2 * kC);
const double k61 = 1 / (1.5 + 2 * kC);
const double k71 = 1 / (2 + 2 * kC);

INSTANTIATE_TEST_SUITE_P(
    Counts, ChannelConversion,
    testing::Values(Channels{"MonoToStereo", 1, 2, 0, {{1}, {1}}}, Channels{"StereoToMono", 2, 1, 0, {{0.5, 0.5}}},
                    Channels{"StereoToQuad", 2, 4, 0, {{1, 0}, {0, 1}, {0, 0}, {0, 0}}},
                    Channels{"FourToTwoWithoutLayout", 4, 2, 0, {{1, 0, 0, 0}, {0, 1, 0, 0}}},
                    Channels{"FourToThree", 4, 3, 0, {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}},
                    Channels{"Unlabelled", 4, 2, kAudioChannelLayoutTag_Unknown | 4, {{1, 0, 0, 0}, {0, 1, 0, 0}}},
                    Channels{"Surround51",
                             6,
                             2,
                             kAudioChannelLayoutTag_MPEG_5_1_A,
                             {{k51, 0, kC* k51, 0, kC* k51, 0}, {0, k51, kC* k51, 0, 0, kC* k51}}},
                    Channels{"Surround61",
                             7,
                             2,
                             kAudioChannelLayoutTag_MPEG_6_1_A,
                             {{k61, 0, kC* k61, 0, kC* k61, 0, k61 / 2}, {0, k61, kC* k61, 0, 0, kC* k61, k61 / 2}}},
                    Channels{"Surround71",
                             8,
                             2,
                             kAudioChannelLayoutTag_MPEG_7_1_A,
                             {{k71, 0, kC* k71, 0, kC* k71, 0, k71, 0}, {0, k71, kC* k71, 0, 0, kC* k71, 0, k71}}}),
    [](const auto& test) { return test.param.name; });

TEST(ChannelConversion, MixesTheSameWayThroughAChangeOfRate) {
  const size_t frames = 4800;
  std::vector<float> in;
  for (float sample : sine<float>(997, 48000, frames, 0.5)) in.insert(in.end(), {sample, sample / 2});
  const auto mono = convert(floats(48000, 2), floats(44100, 1), {bytesOf(in)});
  const auto alone = convert(floats(48000, 1), floats(44100, 1), {bytesOf(sine<float>(997, 48000, frames, 0.375))});
  const auto mixed = samplesOf<float>(mono[0]), expected = samplesOf<float>(alone[0]);
  ASSERT_EQ(mixed.size(), expected.size());
  for (size_t n = 0; n < mixed.size(); ++n) ASSERT_NEAR(mixed[n], expected[n], 1e-6) << n;
}

}  // namespace

#include <bit>
#include <limits>
#include <random>

#include "Conversion.h"

namespace {

constexpr AudioFormatFlags kBig = kAudioFormatFlagIsBigEndian;
constexpr AudioFormatFlags kSigned = kAudioFormatFlagIsSignedInteger;
constexpr AudioFormatFlags kHigh = kAudioFormatFlagIsAlignedHigh;

struct SampleFormat {
  UInt32 bits, container;
  AudioFormatFlags flags;
};
constexpr SampleFormat kFormats[] = {
    {8, 1, kIntFlags},    {8, 1, kAudioFormatFlagIsPacked},
    {16, 2, kIntFlags},   {24, 3, kIntFlags},
    {32, 4, kIntFlags},   {32, 4, kFloatFlags},
    {24, 4, kSigned},     {24, 4, kHigh | kSigned},
    {64, 8, kFloatFlags}, {16, 3, kSigned},
    {8, 2, kHigh},
};

// The plain way: one sample at a time, in double precision, from the words of the format's definition.
double decode(const SampleFormat& format, const std::byte* at) {
  uint64_t word = 0;
  for (UInt32 i = 0; i < format.container; ++i) {
    word = word << 8 | std::to_integer<uint64_t>(at[format.flags & kBig ? i : format.container - 1 - i]);
  }
  if (format.flags & kAudioFormatFlagIsFloat) {
    return format.bits == 64 ? std::bit_cast<double>(word) : std::bit_cast<float>(static_cast<uint32_t>(word));
  }
  if (format.flags & kHigh) word >>= format.container * 8 - format.bits;
  word <<= 64 - format.bits;
  if (!(format.flags & kSigned)) word ^= uint64_t{1} << 63;
  return static_cast<double>(static_cast<int64_t>(word)) / 0x1p63;
}

void encode(const SampleFormat& format, double value, std::byte* at) {
  uint64_t word = 0;
  if (format.flags & kAudioFormatFlagIsFloat) {
    word = format.bits == 64 ? std::bit_cast<uint64_t>(value) : std::bit_cast<uint32_t>(static_cast<float>(value));
  } else {
    const double half = std::ldexp(1.0, static_cast<int>(format.bits) - 1);
    const double rounded = std::isnan(value) ? 0 : std::clamp(std::nearbyint(value * half), -half, half - 1);
    word = static_cast<uint64_t>(static_cast<int64_t>(rounded + (format.flags & kSigned ? 0 : half)));
    if (format.flags & kHigh) word <<= format.container * 8 - format.bits;
  }
  for (UInt32 i = 0; i < format.container; ++i) {
    at[format.flags & kBig ? format.container - 1 - i : i] = static_cast<std::byte>(word >> (8 * i));
  }
}

// Samples in every way worth converting: any value, ties of 16 bits, the limits and what lies beyond.
Bytes randomSamples(const SampleFormat& format, size_t samples, unsigned seed) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  constexpr double special[] = {
      0.0,  -1.0, 1.0,   32767.5 / 32768, -32768.5 / 32768, 8388607.5 / 8388608,
      1e-9, 1e30, -1e30, infinity,        -infinity,        std::numeric_limits<double>::quiet_NaN()};
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> inside(-1.1, 1.1);
  Bytes bytes(samples * format.container);
  for (size_t i = 0; i < samples; ++i) {
    double value = inside(random);
    if (i % 3 == 1) value = std::nearbyint(value * 65536) / 65536;
    if (i % 7 == 2) value = special[random() % std::size(special)];
    encode(format, value, &bytes[i * format.container]);
  }
  return bytes;
}

Buffers splitIntoBuffers(const Bytes& interleaved, size_t container, size_t channels, bool planar) {
  if (!planar) return {interleaved};
  Buffers planes(channels);
  for (size_t i = 0; i < interleaved.size(); ++i) planes[i / container % channels].push_back(interleaved[i]);
  return planes;
}

// Infinities end at the limits of integers, and NaN becomes silent.
TEST(SampleConversion, OfEveryPairOfFormatsIsExactToTheLastBit) {
  constexpr size_t kFrames = 777;
  std::vector<SampleFormat> formats(std::begin(kFormats), std::end(kFormats));
  for (const SampleFormat& each : kFormats) formats.push_back({each.bits, each.container, each.flags | kBig});
  const struct {
    UInt32 channels;
    AudioFormatFlags source, destination;
  } layouts[] = {{2, 0, 0}, {2, kPlanar, 0}, {2, 0, kPlanar}, {1, 0, 0}, {5, kPlanar, 0}, {8, 0, kPlanar}};
  withEveryInstructionSet([&] {
    for (const auto& [channels, source, destination] : layouts) {
      for (const SampleFormat& from : formats) {
        const Bytes samples = randomSamples(from, kFrames * channels, channels);
        for (const SampleFormat& to : formats) {
          Bytes expected(kFrames * channels * to.container);
          for (size_t i = 0; i < kFrames * channels; ++i) {
            encode(to, decode(from, &samples[i * from.container]), &expected[i * to.container]);
          }

          const Buffers out = convert(pcm(48000, channels, from.bits, from.flags | source, from.container),
                                      pcm(48000, channels, to.bits, to.flags | destination, to.container),
                                      splitIntoBuffers(samples, from.container, channels, source), 43, 150);

          ASSERT_EQ(out, splitIntoBuffers(expected, to.container, channels, destination))
              << from.bits << " bits, flags " << from.flags << " to " << to.bits << " bits, flags " << to.flags;
        }
      }
    }
  });
}

TEST(ChannelConversion, PutsEachChannelWhereItBelongs) {
  constexpr double kC = 0.70710678118654752;
  constexpr double k51 = 1 / (1 + 2 * kC), c51 = kC * k51;
  constexpr double k71 = 1 / (2 + 2 * kC), c71 = kC * k71;
  const struct {
    UInt32 in, out;
    AudioChannelLayoutTag layout;  ///< 0: none set
    std::vector<double> gains;     ///< of each input in the first output, in the second and so on
  } cases[] = {
      {1, 2, 0, {1, 1}},
      {2, 1, 0, {0.5, 0.5}},
      {2, 4, 0, {1, 0, 0, 1, 0, 0, 0, 0}},
      {4, 2, 0, {1, 0, 0, 0, 0, 1, 0, 0}},
      {4, 2, kAudioChannelLayoutTag_Unknown | 4, {1, 0, 0, 0, 0, 1, 0, 0}},
      {10, 2, 0, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
      {6, 2, kAudioChannelLayoutTag_MPEG_5_1_A, {k51, 0, c51, 0, c51, 0, 0, k51, c51, 0, 0, c51}},
      {8, 2, kAudioChannelLayoutTag_MPEG_7_1_A, {k71, 0, c71, 0, c71, 0, k71, 0, 0, k71, c71, 0, 0, c71, 0, k71}},
  };
  for (const auto& [in, out, tag, gains] : cases) {
    // Frame n carries full scale in channel n alone.
    std::vector<double> ones(in * in);
    for (UInt32 n = 0; n < in; ++n) ones[n * in + n] = 1;
    const AudioFormatFlags planar = in > 8 ? kPlanar : 0;
    Feed feed{.format = of<double>(48000, in, planar), .buffers = splitIntoBuffers(bytesOf(ones), 8, in, planar)};
    Converter converter(feed.format, of<double>(48000, out));
    const AudioChannelLayout layout{tag, 0, 0};
    if (tag != 0) AudioConverterSetProperty(converter.get(), kAudioConverterInputChannelLayout, sizeof layout, &layout);

    Buffers result;
    ASSERT_EQ(converter.fillFrom(feed, 1, result), noErr);

    const auto* samples = reinterpret_cast<const double*>(result[0].data());
    for (UInt32 i = 0; i < in * out; ++i) {
      EXPECT_NEAR(samples[i % in * out + i / in], gains[i], 1e-12) << in << " to " << out << ": " << i;
    }
  }
}

}  // namespace

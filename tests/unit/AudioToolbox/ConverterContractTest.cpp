#include <functional>
#include <limits>
#include <random>

#include "Conversion.h"

namespace {

constexpr OSStatus kNoMoreForNow = 0x6E6F6D6F;  // 'nomo', known to these tests alone

using Description = AudioStreamBasicDescription;

struct Refusal {
  const char* name;
  std::function<void(Description&)> spoil;
  bool isRate = false;
};

class FormatRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(FormatRefusal, NamesTheReasonOnEitherSide) {
  const Description good = int16s(48000, 2);
  Description bad = good;
  GetParam().spoil(bad);
  AudioConverterRef converter = nullptr;

  EXPECT_EQ(AudioConverterNew(&bad, &good, &converter),
            GetParam().isRate ? kAudioConverterErr_InputSampleRateOutOfRange : kAudioConverterErr_FormatNotSupported);
  EXPECT_EQ(converter, nullptr);
  EXPECT_EQ(AudioConverterNew(&good, &bad, &converter),
            GetParam().isRate ? kAudioConverterErr_OutputSampleRateOutOfRange : kAudioConverterErr_FormatNotSupported);
}

INSTANTIATE_TEST_SUITE_P(
    Descriptions, FormatRefusal,
    testing::Values(
        Refusal{"Compressed", [](Description& d) { d.mFormatID = 0x61616320; }},
        Refusal{"NoChannels", [](Description& d) { d.mChannelsPerFrame = 0; }},
        Refusal{"NineChannels", [](Description& d) { d = int16s(48000, 9); }},
        Refusal{"HugeChannels", [](Description& d) { d.mChannelsPerFrame = 0xFFFFFFFF; }},
        Refusal{"NoBytesPerFrame", [](Description& d) { d.mBytesPerFrame = d.mBytesPerPacket = 0; }},
        Refusal{"PacketOfTwoFrames", [](Description& d) { d.mFramesPerPacket = 2; }},
        Refusal{"PacketUnlikeFrame", [](Description& d) { d.mBytesPerPacket = 8; }},
        Refusal{"OddFrame", [](Description& d) { d.mBytesPerFrame = d.mBytesPerPacket = 5; }},
        Refusal{"FrameTooSmall", [](Description& d) { d.mBytesPerFrame = d.mBytesPerPacket = 2; }},
        Refusal{"PackedYetLoose", [](Description& d) { d.mBytesPerFrame = d.mBytesPerPacket = 8; }},
        Refusal{"TwelveBits", [](Description& d) { d.mBitsPerChannel = 12; }},
        Refusal{"NoBits", [](Description& d) { d.mBitsPerChannel = 0; }},
        Refusal{"SixtyFourBitInteger", [](Description& d) { d = pcm(48000, 2, 64, kIntFlags); }},
        Refusal{"UnsignedSixteen", [](Description& d) { d.mFormatFlags = kAudioFormatFlagIsPacked; }},
        Refusal{"SixteenBitFloat", [](Description& d) { d.mFormatFlags = kFloatFlags; }},
        Refusal{"FloatAndInteger", [](Description& d) { d = pcm(48000, 2, 32, kFloatFlags | kIntFlags); }},
        Refusal{"RateTooLow", [](Description& d) { d.mSampleRate = 7999.9; }, true},
        Refusal{"RateTooHigh", [](Description& d) { d.mSampleRate = 192000.1; }, true},
        Refusal{"RateZero", [](Description& d) { d.mSampleRate = 0; }, true},
        Refusal{"RateNaN", [](Description& d) { d.mSampleRate = std::numeric_limits<double>::quiet_NaN(); }, true},
        Refusal{"RateInfinite", [](Description& d) { d.mSampleRate = std::numeric_limits<double>::infinity(); }, true}),
    [](const auto& test) { return test.param.name; });

TEST(AudioConverter, RefusesNullPointers) {
  const Description format = int16s(48000, 2);
  AudioConverterRef none = nullptr;
  UInt32 packets = 1;
  Buffers buffers{Bytes(4)};
  BufferList list(format, buffers);
  Converter converter(format, format);

  EXPECT_EQ(AudioConverterNew(nullptr, &format, &none), kAudio_ParamError);
  EXPECT_EQ(AudioConverterNew(&format, nullptr, &none), kAudio_ParamError);
  EXPECT_EQ(AudioConverterNew(&format, &format, nullptr), kAudio_ParamError);
  EXPECT_EQ(AudioConverterDispose(nullptr), kAudio_ParamError);
  EXPECT_EQ(AudioConverterReset(nullptr), kAudio_ParamError);
  EXPECT_EQ(AudioConverterSetProperty(converter.get(), kAudioConverterInputChannelLayout, 12, nullptr),
            kAudio_ParamError);
  EXPECT_EQ(AudioConverterFillComplexBuffer(nullptr, &Feed::proc, nullptr, &packets, list.get(), nullptr),
            kAudio_ParamError);
  EXPECT_EQ(AudioConverterFillComplexBuffer(converter.get(), nullptr, nullptr, &packets, list.get(), nullptr),
            kAudio_ParamError);
  EXPECT_EQ(AudioConverterFillComplexBuffer(converter.get(), &Feed::proc, nullptr, nullptr, list.get(), nullptr),
            kAudio_ParamError);
  EXPECT_EQ(AudioConverterFillComplexBuffer(converter.get(), &Feed::proc, nullptr, &packets, nullptr, nullptr),
            kAudio_ParamError);
}

TEST(AudioConverter, TakesOnlyALayoutOfTheInputsChannelCount) {
  Converter converter(int16s(48000, 6), int16s(48000, 2));
  const AudioChannelLayout stereo{kAudioChannelLayoutTag_Stereo, 0, 0};
  const AudioChannelLayout surround{kAudioChannelLayoutTag_MPEG_5_1_A, 0, 0};

  EXPECT_EQ(AudioConverterSetProperty(converter.get(), kAudioConverterInputChannelLayout, sizeof stereo, &stereo),
            kAudioConverterErr_BadPropertySizeError);
  EXPECT_EQ(AudioConverterSetProperty(converter.get(), kAudioConverterInputChannelLayout, 8, &surround),
            kAudioConverterErr_BadPropertySizeError);
  EXPECT_EQ(AudioConverterSetProperty(converter.get(), 0x6F636C20, sizeof surround, &surround),
            kAudioConverterErr_PropertyNotSupported);
  EXPECT_EQ(AudioConverterSetProperty(converter.get(), kAudioConverterInputChannelLayout, sizeof surround, &surround),
            noErr);
}

// The three kinds of way through the converter: a copy, sample by sample, and a change of rate in both precisions and
// with interpolated filters.
struct Way {
  const char* name;
  Description source, destination;
};

class EveryWay : public testing::TestWithParam<Way> {
 protected:
  const Description& source() const { return GetParam().source; }
  const Description& destination() const { return GetParam().destination; }

  Buffers noise(size_t frames) const {
    std::mt19937 random(3);
    Buffers buffers(buffersIn(source()), Bytes(frames * source().mBytesPerFrame));
    for (Bytes& bytes : buffers) {
      std::vector<float> samples(bytes.size() / 4);
      for (float& sample : samples) sample = std::ldexp(static_cast<float>(random() % 65536) - 32768.0f, -16);
      if (source().mFormatFlags & kAudioFormatFlagIsFloat && source().mBitsPerChannel == 32) {
        bytes = bytesOf(samples);
      } else {
        for (std::byte& byte : bytes) byte = static_cast<std::byte>(random() & 0x3F);
      }
    }
    return buffers;
  }
  Buffers convertInOneGo(size_t frames) const {
    Feed feed{.format = source(), .buffers = noise(frames)};
    Converter converter(source(), destination());
    return converter.convertAll(feed, 8 * frames);
  }
};

TEST_P(EveryWay, GivesTheSameBytesHoweverInputAndOutputAreCut) {
  constexpr size_t kFrames = 6000;
  const Buffers whole = convertInOneGo(kFrames);
  for (const auto& [chunk, request] : {std::pair<size_t, size_t>{1, 4096}, {7, 13}, {480, 441}, {6000, 1}, {0, 100}}) {
    Feed feed{.format = source(), .buffers = noise(kFrames), .chunk = chunk};
    Converter converter(source(), destination());
    ASSERT_EQ(converter.convertAll(feed, request), whole) << chunk << " in, " << request << " out";
  }
}

TEST_P(EveryWay, GoesOnWithoutASeamAfterTheCallbackHadNoMoreForNow) {
  constexpr size_t kFrames = 5000;
  const Buffers whole = convertInOneGo(kFrames);
  Feed feed{.format = source(), .buffers = noise(kFrames), .statusAtEnd = kNoMoreForNow};
  Converter converter(source(), destination());
  Buffers pieces(whole.size());
  for (feed.available = 0; feed.available <= kFrames; feed.available += 250) {
    if (feed.available == kFrames) feed.statusAtEnd = noErr;
    Buffers piece;
    EXPECT_EQ(converter.fill(feed, 60000, piece), feed.statusAtEnd);
    for (size_t b = 0; b < piece.size(); ++b) pieces[b].insert(pieces[b].end(), piece[b].begin(), piece[b].end());
  }
  EXPECT_EQ(pieces, whole);
}

TEST_P(EveryWay, IsAsNewAfterAReset) {
  constexpr size_t kFrames = 1024;
  const Buffers whole = convertInOneGo(kFrames);
  Converter converter(source(), destination());
  for (const size_t taken : {700u, 10u, 60000u}) {  // with input held, barely begun, and ended
    Feed feed{.format = source(), .buffers = noise(kFrames)};
    Buffers out;
    ASSERT_EQ(converter.fill(feed, taken, out), noErr);
    ASSERT_EQ(AudioConverterReset(converter.get()), noErr);
  }
  Feed feed{.format = source(), .buffers = noise(kFrames)};
  EXPECT_EQ(converter.convertAll(feed), whole);
}

TEST_P(EveryWay, AsksNoMoreOnceTheInputHasEnded) {
  Feed feed{.format = source(), .buffers = noise(200)};
  Converter converter(source(), destination());
  converter.convertAll(feed);
  const size_t calls = feed.calls;
  Buffers out;

  EXPECT_EQ(converter.fill(feed, 100, out), noErr);

  EXPECT_TRUE(out[0].empty());
  EXPECT_EQ(feed.calls, calls);
}

TEST_P(EveryWay, RefusesOutputThatDoesNotFitAndKeepsTheStream) {
  const Buffers whole = convertInOneGo(500);
  Feed feed{.format = source(), .buffers = noise(500)};
  Converter converter(source(), destination());
  Buffers room(buffersIn(destination()), Bytes(99 * destination().mBytesPerFrame));
  const auto attempt = [&](const std::function<void(BufferList&)>& spoil) {
    BufferList list(destination(), room);
    spoil(list);
    UInt32 packets = 99;
    const OSStatus status =
        AudioConverterFillComplexBuffer(converter.get(), &Feed::proc, &feed, &packets, list.get(), nullptr);
    EXPECT_EQ(packets, 0u);
    return status;
  };

  EXPECT_EQ(attempt([](BufferList& list) { list.get()->mNumberBuffers = 0; }), kAudioConverterErr_InvalidOutputSize);
  EXPECT_EQ(attempt([](BufferList& list) { list.get()->mNumberBuffers += 1; }), kAudioConverterErr_InvalidOutputSize);
  EXPECT_EQ(attempt([](BufferList& list) { list.at(0).mData = nullptr; }), kAudioConverterErr_InvalidOutputSize);
  EXPECT_EQ(attempt([](BufferList& list) { list.at(0).mDataByteSize -= 1; }), kAudioConverterErr_InvalidOutputSize);
  EXPECT_EQ(feed.calls, 0u);
  EXPECT_EQ(converter.convertAll(feed), whole);
}

using Misbehaviour = void (*)(UInt32* packets, AudioBufferList* list);

TEST_P(EveryWay, RefusesInputThatIsNotThereAndKeepsTheStream) {
  for (const Misbehaviour misbehave : {
           Misbehaviour{[](UInt32*packets, AudioBufferList*) { *packets = 10; }},  // but no memory
           Misbehaviour{[](UInt32*packets, AudioBufferList*list) {
             static std::byte memory[4096];
             AudioBuffer* const buffers = list->mBuffers;
             for (UInt32 b = 0; b < list->mNumberBuffers; ++b) buffers[b] = {1, 39, memory};
             *packets = 40;
           }},
           Misbehaviour{[](UInt32*packets, AudioBufferList*list) {
             list->mNumberBuffers = 0;
             *packets = 0xFFFFFFFF;
           }},
           Misbehaviour{[](UInt32*packets, AudioBufferList*list) {
             list->mNumberBuffers = 0xFFFFFFFF;
             *packets = 1;
           }},
       }) {
    const Buffers whole = convertInOneGo(500);
    Converter converter(source(), destination());
    Feed feed{.format = source(), .buffers = noise(500), .statusAtEnd = kNoMoreForNow};
    feed.available = 300;
    Buffers first;
    ASSERT_EQ(converter.fill(feed, 60000, first), kNoMoreForNow);

    Buffers room(buffersIn(destination()), Bytes(99 * destination().mBytesPerFrame));
    BufferList list(destination(), room);
    UInt32 packets = 99;
    const auto proc = [](AudioConverterRef, UInt32* count, AudioBufferList* data, AudioStreamPacketDescription**,
                         void* context) {
      (*static_cast<const Misbehaviour*>(context))(count, data);
      return OSStatus{noErr};
    };
    Misbehaviour context = misbehave;
    EXPECT_EQ(AudioConverterFillComplexBuffer(converter.get(), proc, &context, &packets, list.get(), nullptr),
              kAudioConverterErr_InvalidInputSize);
    EXPECT_EQ(packets, 0u);

    feed.available = 500;
    feed.statusAtEnd = noErr;
    const Buffers rest = converter.convertAll(feed);
    for (size_t b = 0; b < rest.size(); ++b) first[b].insert(first[b].end(), rest[b].begin(), rest[b].end());
    EXPECT_EQ(first, whole);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ways, EveryWay,
    testing::Values(Way{"Copy", int16s(44100, 2), int16s(44100, 2)},
                    Way{"CopyOfPlanes", pcm(48000, 3, 24, kIntFlags | kPlanar), pcm(48000, 3, 24, kIntFlags | kPlanar)},
                    Way{"Samples", pcm(48000, 2, 32, kFloatFlags | kPlanar), int16s(48000, 2)},
                    Way{"Mix", floats(48000, 2), floats(48000, 1)}, Way{"Down", floats(48000, 2), int16s(44100, 2)},
                    Way{"DownPlanes", pcm(96000, 3, 32, kFloatFlags | kPlanar), pcm(44100, 3, 16, kIntFlags | kPlanar)},
                    Way{"Up", int16s(8000, 1), int16s(44100, 2)}, Way{"FarDown", floats(192000, 1), floats(8000, 1)},
                    Way{"Double", pcm(48000, 2, 24, kIntFlags), pcm(44100, 2, 32, kIntFlags)},
                    Way{"Interpolated", floats(48000, 2), floats(44056, 2)}),
    [](const auto& test) { return test.param.name; });

TEST(RateConversion, IsNotPoisonedByInfinitiesAndNaN) {
  std::vector<float> bad = sine<float>(997, 48000, 4800, 0.5);
  std::vector<float> silent = bad;
  for (const size_t n : {0u, 1000u, 1003u, 4799u}) {
    bad[n] = n % 2 ? std::numeric_limits<float>::quiet_NaN() : -std::numeric_limits<float>::infinity();
    silent[n] = 0;
  }
  const auto convert = [](const std::vector<float>& in) {
    Feed feed{.format = floats(48000, 1), .buffers = {bytesOf(in)}};
    Converter converter(floats(48000, 1), floats(44100, 1));
    return converter.convertAll(feed);
  };
  EXPECT_EQ(convert(bad), convert(silent));
}

TEST(RateConversion, StaysBoundedForInputsOfAnyLengthAndKind) {
  for (const size_t frames : {1u, 2u, 3u, 5u, 8u, 13u, 40u, 89u, 90u, 91u, 300u}) {
    for (int kind = 0; kind < 5; ++kind) {
      std::vector<float> in(frames);
      for (size_t n = 0; n < frames; ++n) {
        const float ramp = static_cast<float>(n + 1) / static_cast<float>(frames);
        const float kinds[] = {0.0f, 1.0f, n % 2 ? -1.0f : 1.0f, ramp, n == frames - 1 ? 1.0f : 0.0f};
        in[n] = kinds[kind];
      }
      Feed feed{.format = floats(48000, 1), .buffers = {bytesOf(in)}};
      Converter converter(floats(48000, 1), floats(44100, 1));
      for (float sample : samplesOf<float>(converter.convertAll(feed)[0])) {
        ASSERT_LE(std::abs(sample), 2.5f) << frames << " frames of kind " << kind;
        if (kind == 1 && frames > 1) {
          ASSERT_NEAR(sample, 1, 1e-5) << "a constant stays one";
        }
      }
    }
  }
}

}  // namespace

#include <support/AllocationCount.h>

#include <functional>
#include <limits>
#include <random>
#include <utility>

#include "Conversion.h"

namespace {

TEST(AudioConverter, RefusesFormatsThatItCannotReadOrWrite) {
  const Description good = of<SInt16>(48000, 2);
  const auto expectRefusals = [&](const Description& bad, OSStatus asInput, OSStatus asOutput) {
    AudioConverterRef converter = nullptr;
    EXPECT_EQ(AudioConverterNew(&bad, &good, &converter), asInput);
    EXPECT_EQ(AudioConverterNew(&good, &bad, &converter), asOutput);
    EXPECT_EQ(converter, nullptr);
  };

  const std::function<void(Description&)> unsupported[] = {
      [](Description& d) { d.mFormatID = 0x61616320; },
      [](Description& d) { d.mChannelsPerFrame = 0xFFFFFFFF; },
      [](Description& d) { d = of<SInt16>(48000, 9); },
      [](Description& d) { d.mBytesPerFrame = d.mBytesPerPacket = 0; },
      [](Description& d) { d.mBytesPerFrame = d.mBytesPerPacket = 8; },  // packed, it says
      [](Description& d) { d.mBitsPerChannel = 12; },
      [](Description& d) { d = pcm(48000, 2, 64, kIntFlags); },
      [](Description& d) { d.mFormatFlags = kFloatFlags; },
  };
  for (const auto& spoil : unsupported) {
    SCOPED_TRACE(&spoil - unsupported);
    Description bad = good;
    spoil(bad);
    expectRefusals(bad, kAudioConverterErr_FormatNotSupported, kAudioConverterErr_FormatNotSupported);
  }
  for (const double rate : {7999.9, 192000.1, 0.0, std::nan(""), std::numeric_limits<double>::infinity()}) {
    expectRefusals(of<SInt16>(rate, 2), kAudioConverterErr_InputSampleRateOutOfRange,
                   kAudioConverterErr_OutputSampleRateOutOfRange);
  }
}

TEST(AudioConverter, NeedsNoMemoryForNoFrames) {
  const Description format = of<SInt16>(48000, 2);
  Converter converter(format, format);
  AudioBufferList nowhere{1, {{2, 0, nullptr}}};
  UInt32 frames = 0;

  EXPECT_EQ(AudioConverterFillComplexBuffer(converter.get(), &Feed::proc, nullptr, &frames, &nowhere, nullptr), noErr);
}

TEST(AudioConverter, AllocatesNothingOnceItHasSeenTheSizesInUse) {
  if (!AllocationsAreCounted) GTEST_SKIP() << "the allocator is a sanitizer's";
  // Hands the same 480 frames over again and again, then has no more for now.
  const auto proc = [](AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                       void* isThere) {
    static float samples[2 * 480] = {};
    if (!std::exchange(*static_cast<bool*>(isThere), false)) return kNoMoreForNow;
    *packets = 480;
    list->mBuffers[0] = {2, sizeof samples, samples};
    return OSStatus{noErr};
  };
  for (const double rate : {44100.0, 48000.0}) {
    Converter converter(of<float>(48000, 2), of<SInt16>(rate, 2));
    std::vector<SInt16> out(2 * 4096);
    std::int64_t before = 0;
    for (int turn = 0; turn < 100; ++turn) {
      if (turn == 4) before = allocationCount();
      bool isThere = true;
      UInt32 packets = turn % 2 ? 4096 : 100;  // all there is, and less than that
      AudioBufferList list{1, {{2, packets * 4, out.data()}}};
      AudioConverterFillComplexBuffer(converter.get(), proc, &isThere, &packets, &list, nullptr);
      if (turn % 10 == 9) AudioConverterReset(converter.get());
    }
    EXPECT_EQ(allocationCount(), before) << rate;
  }
}

// The three kinds of way through the converter: a copy, sample by sample, and a change of rate in both precisions and
// with interpolated filters.
const std::pair<Description, Description> kWays[] = {
    {of<SInt16>(44100, 2), of<SInt16>(44100, 2)},
    {pcm(48000, 3, 24, kIntFlags | kPlanar), pcm(48000, 3, 24, kIntFlags | kPlanar)},
    {of<float>(48000, 2, kPlanar), of<SInt16>(48000, 2)},
    {of<float>(48000, 2, kPlanar), of<SInt16>(48000, 3)},
    {of<float>(48000, 2), of<float>(48000, 1)},
    {of<float>(48000, 2), of<SInt16>(44100, 2)},
    {of<float>(96000, 3, kPlanar), of<SInt16>(44100, 3, kPlanar)},
    {of<SInt16>(8000, 1), of<SInt16>(44100, 2)},
    {of<float>(192000, 1), of<float>(8000, 1)},
    {pcm(48000, 2, 24, kIntFlags), of<SInt32>(44100, 2)},
    {of<float>(48000, 2), of<float>(44056, 2)},
};

class EveryWay : public testing::TestWithParam<std::pair<Description, Description>> {
 protected:
  Feed noise(size_t frames, OSStatus statusAtEnd = noErr) const {
    std::mt19937 random(3);
    Bytes bytes(frames * source.mChannelsPerFrame * sizeof(SInt16));
    for (std::byte& byte : bytes) byte = static_cast<std::byte>(random());
    const auto plain = of<SInt16>(source.mSampleRate, source.mChannelsPerFrame);
    return {.format = source, .buffers = convert(plain, source, {bytes}), .statusAtEnd = statusAtEnd};
  }
  Buffers convertInOneGo(size_t frames) const {
    return convert(source, destination, noise(frames).buffers, 0, 8 * frames);
  }

  const Description source = GetParam().first, destination = GetParam().second;
  Converter converter{source, destination};
};
INSTANTIATE_TEST_SUITE_P(Ways, EveryWay, testing::ValuesIn(kWays));

TEST_P(EveryWay, GivesTheSameBytesHoweverInputAndOutputAreCutAndAfterAReset) {
  const Buffers whole = convertInOneGo(6000);
  Buffers out;
  for (const auto& [chunk, request] : {std::pair<size_t, size_t>{1, 4096}, {7, 13}, {480, 441}, {6000, 1}, {0, 100}}) {
    Feed feed = noise(6000);
    feed.chunk = chunk;
    ASSERT_EQ(converter.convertAll(feed, request), whole) << chunk << " in, " << request << " out";

    const size_t calls = feed.calls;
    EXPECT_EQ(converter.fill(feed, 100, out), noErr);
    EXPECT_TRUE(out[0].empty());
    EXPECT_EQ(feed.calls, calls) << "it asks no more once the input has ended";

    AudioConverterReset(converter.get());
    Feed begun = noise(1024);
    ASSERT_EQ(converter.fill(begun, request, out), noErr);  // so that most of the resets find input held
    AudioConverterReset(converter.get());
  }
}

TEST_P(EveryWay, GoesOnWithoutASeamAfterTheCallbackHadNoMoreForNow) {
  Feed feed = noise(5000, kNoMoreForNow);
  Buffers pieces, piece;
  for (feed.available = 0; feed.available <= 5000; feed.available += 250) {
    if (feed.available == 5000) feed.statusAtEnd = noErr;
    EXPECT_EQ(converter.fill(feed, 60000, piece), feed.statusAtEnd);
    append(pieces, piece);
  }
  EXPECT_EQ(pieces, convertInOneGo(5000));
}

TEST(RateConversion, IsNotPoisonedByInfinitiesAndNaN) {
  std::vector<float> bad = sine<float>(997, 48000, 4800, 0.5);
  std::vector<float> silent = bad;
  for (const size_t n : {0u, 1000u, 1003u, 4799u}) {
    bad[n] = n % 2 ? std::numeric_limits<float>::quiet_NaN() : -std::numeric_limits<float>::infinity();
    silent[n] = 0;
  }
  const Description source = of<float>(48000, 1), destination = of<float>(44100, 1);
  EXPECT_EQ(convert(source, destination, {bytesOf(bad)}), convert(source, destination, {bytesOf(silent)}));
}

}  // namespace

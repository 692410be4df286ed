#include <cmath>
#include <cstring>

#include "PipeWireTest.h"

// Sound: its bits at the seam and at the host, its times, and what a graph that stumbles leaves.

namespace test::pipewire {
namespace {

/// Follows a microphone's sound: where it goes on, and whether its times go with it.
class Follower {
 public:
  /// `bytes` of `frames` frames, which begin at `time` in seconds.
  void hear(const std::uint8_t* bytes, std::uint32_t frames, std::uint32_t channels, int bits, bool isFloat,
            double rate, double time, std::uint32_t firstChannel) {
    if (heard > 0 && std::abs(time - nextTime) > 0.001) ++gaps;
    const std::uint32_t mask = (1U << (bits == 16 ? 16 : 24)) - 1;
    for (std::uint32_t i = 0; i < frames * channels; ++i, bytes += bits / 8) {
      std::uint32_t sample = 0;
      std::memcpy(&sample, bytes, static_cast<std::size_t>(bits / 8));
      if (isFloat) {
        float real = 0;
        std::memcpy(&real, bytes, sizeof real);
        sample = static_cast<std::uint32_t>(static_cast<std::int32_t>(real * 8'388'608.0F)) & mask;
      }
      const std::uint32_t place = placeOf(sample, firstChannel + i % channels, bits == 16 ? 16 : 24);
      if ((heard > 0 || i > 0) && place != nextPlace) ++breaks;
      nextPlace = (place + (i % channels + 1 == channels)) & mask;
    }
    nextTime = time + frames / rate;
    heard += frames;
  }

  std::atomic<std::uint64_t> heard{0};
  std::atomic<int> breaks{0};  ///< samples that are not the microphone's next
  std::atomic<int> gaps{0};    ///< in the times, of more than a millisecond

 private:
  std::uint32_t nextPlace = 0;
  double nextTime = 0;
};

/// What the microphone of that name delivers at the seam.
class Ear final : public hardware::Sink, public Follower {
 public:
  explicit Ear(const std::string& name, std::size_t format = 0, std::uint32_t firstChannel = 0)
      : _firstChannel(firstChannel) {
    const auto isThere = [&] {
      for (const auto& device : hardware::systemProvider()->devices()) {
        if (device->description().name == name) _device = device;
      }
      return _device != nullptr;
    };
    if (!until(isThere, 10)) throw std::runtime_error(name + " is not listed");
    _device->selectAudioFormat(format);
    _device->start(*this);
  }
  ~Ear() { _device->stop(); }

 private:
  void videoFrameCaptured(const hardware::VideoFrame&) override {}
  void videoFrameLost(CMTime, CMTime) override {}
  void audioChunkCaptured(const hardware::AudioChunk& chunk) override {
    const AudioStreamBasicDescription& stream = chunk.format->stream;
    hear(static_cast<const std::uint8_t*>(chunk.buffers->mBuffers[0].mData), chunk.frameCount, stream.mChannelsPerFrame,
         static_cast<int>(stream.mBitsPerChannel), (stream.mFormatFlags & kAudioFormatFlagIsFloat) != 0,
         stream.mSampleRate, CMTimeGetSeconds(chunk.presentationTime), _firstChannel);
  }
  bool hasRoomForVideo() override { return true; }
  bool hasRoomForAudio() override { return true; }

  const std::uint32_t _firstChannel;
  std::shared_ptr<hardware::Device> _device;
};

// A graph that a busy machine holds up leaves gaps in the times, but none in the bits.
class SoundTest : public PipeWireTest {};

TEST_F(SoundTest, ArrivesBitForBitInTheFormatAndAtTheRateOfTheDevice) {
  const struct {
    spa_audio_format format;
    std::uint32_t rate, channels;
    std::size_t chosen = 0;
    std::uint32_t firstChannel = 0;
  } cases[] = {{SPA_AUDIO_FORMAT_S16_LE, 48'000, 2}, {SPA_AUDIO_FORMAT_S24_LE, 48'000, 2},
               {SPA_AUDIO_FORMAT_F32_LE, 48'000, 1}, {SPA_AUDIO_FORMAT_S16_LE, 44'100, 2},
               {SPA_AUDIO_FORMAT_S24_LE, 96'000, 2}, {SPA_AUDIO_FORMAT_S24_LE, 48'000, 6, 1, 2}};
  for (const auto& each : cases) {
    const auto& [format, rate, channels, chosen, firstChannel] = each;
    const std::string name = std::to_string(format) + " " + std::to_string(rate) + " " + std::to_string(channels);
    SCOPED_TRACE(name);
    const Microphone microphone(
        {.name = name, .description = name, .format = format, .rate = rate, .channels = channels});
    const Ear ear(name, chosen, firstChannel);
    EXPECT_TRUE(until([&] { return ear.heard > each.rate / 3; }, 10));
    EXPECT_EQ(ear.breaks, 0);
  }
}

/// What a host hears of a source at 44,100 Hz in 16 bits.
class SoundTake : public Follower {
 public:
  SoundTake(const Host& host, std::string source, double ticks)
      : _host(host), _source(std::move(source)), _ticks(ticks) {
    host.registerAudio(_source, receive, this);
  }
  ~SoundTake() { _host.registerAudio(_source, nullptr, nullptr); }

 private:
  static void receive(void* context, BRV_AudioBuffer* buffer) {
    auto& self = *static_cast<SoundTake*>(context);
    const auto frames = static_cast<std::uint32_t>(buffer->dataLength / 4);
    const double time = static_cast<double>(buffer->timeStamp) / self._ticks;
    const auto* const bytes = static_cast<const std::uint8_t*>(buffer->data);
    self.hear(bytes, frames, 2, 16, false, 44'100, time, 0);
  }

  const Host& _host;
  const std::string _source;
  const double _ticks;
};

TEST_F(SoundTest, ReachesTheHostBitForBitAtItsOwnRateAndAStumbleOfTheGraphLeavesAGapInTheTimes) {
  Microphone microphone({.rate = 44'100});
  Host host;
  ASSERT_TRUE(hasSources(host, {"Microphone Audio"}));
  const SoundTake take(host, "Microphone Audio", 44'100);
  ASSERT_TRUE(until([&] { return take.heard > 22'050; }));
  EXPECT_EQ(take.breaks, 0);
  const int before = take.gaps;
  microphone.stall(500'000'000);
  const std::uint64_t heard = take.heard;
  EXPECT_TRUE(until([&] { return take.heard > heard + 20'000; }));
  EXPECT_GT(take.gaps, before);
}

}  // namespace
}  // namespace test::pipewire

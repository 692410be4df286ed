#include <CoreVideo/CVPixelBuffer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/MediaFiles.h"
#include "support/Rigs.h"
#include "support/TemporaryFolder.h"

// Clips played into the module, paced by the consumer: what a host receives is what the file holds.

namespace {

/// Runs the main loop until `done`, for a minute at most.
template <typename Condition>
void waitFor(Condition done) {
  for (int i = 0; i < 6000 && !done(); ++i) NSRunLoop::mainRunLoop().runForSeconds(0.01);
  EXPECT_TRUE(done());
}

class ClipTest : public FrameworkTest {
 protected:
  std::string noise(std::size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(_random());
    return bytes;
  }
  void play(const std::string& media, const std::string& bytes) {
    rigs::install("[device]\nid = clip\nname = Clip\npacing = consumer\nmedia = " + media + " = media " +
                  _folder.write("clip", bytes) + ", once\n");
  }

 private:
  const TemporaryFolder _folder;
  std::mt19937 _random{1};
};

struct VideoReceiver {
  /// Pictures in the order Y0 Cb Y1 Cr without padding, and their time stamps.
  std::vector<std::string> pictures;
  std::vector<std::int64_t> times;
  std::atomic<std::size_t> count{0};

  static void receive(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<VideoReceiver*>(context);
    auto* pixels = static_cast<CVPixelBufferRef>(buffer->data);
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const char* row = static_cast<const char*>(CVPixelBufferGetBaseAddress(pixels));
    std::string picture;
    for (int y = 0; y < buffer->height; ++y, row += buffer->rowBytes) {
      picture.append(row, static_cast<std::size_t>(buffer->width) * 2);
    }
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    self.pictures.push_back(std::move(picture));
    self.times.push_back(buffer->timeStamp);
    ++self.count;
  }
};

std::string packed(const std::string& planes, std::size_t width, std::size_t height) {
  const char* y = planes.data();
  const char* u = y + width * height;
  const char* v = u + width / 2 * height;
  std::string picture;
  for (std::size_t pair = 0; pair < width / 2 * height; ++pair) {
    picture += {y[2 * pair], u[pair], y[2 * pair + 1], v[pair]};
  }
  return picture;
}

TEST_F(ClipTest, EveryFrameArrivesOnceInOrderAndBitIdentical) {
  struct Case {
    std::size_t width, height;
    const char* rate;
    std::int64_t ticks;
    int ticksPerSecond;
  };
  for (const Case& c :
       {Case{64, 36, "25:1", 1, 25}, Case{176, 144, "30000:1001", 1001, 30000}, Case{640, 360, "60:1", 1, 60}}) {
    constexpr std::size_t Frames = 50;
    std::string file =
        "YUV4MPEG2 W" + std::to_string(c.width) + " H" + std::to_string(c.height) + " F" + c.rate + " Ip A1:1 C422\n";
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < Frames; ++i) {
      const std::string planes = noise(c.width * c.height * 2);
      file += "FRAME\n" + planes;
      expected.push_back(packed(planes, c.width, c.height));
    }
    play("video\npicture", file);
    Host host;
    VideoReceiver received;

    host.registerVideo("Clip Video", VideoReceiver::receive, &received);
    waitFor([&] { return received.count == Frames; });
    const int timescale = host.timescale("Clip Video");
    const auto frameDuration = host.frameDuration("Clip Video");
    host.uninitialize();

    EXPECT_EQ(received.pictures.size(), Frames);
    EXPECT_TRUE(received.pictures == expected);
    EXPECT_EQ(frameDuration * c.ticksPerSecond, c.ticks * timescale) << "the frame duration is exact";
    for (std::size_t i = 0; i < received.times.size(); ++i) {
      EXPECT_EQ(received.times[i], static_cast<std::int64_t>(i) * frameDuration);
    }
    EXPECT_EQ(host.logged("Dropped a Frame!\n"), 0);
  }
}

struct AudioReceiver {
  std::string bytes;
  std::vector<std::pair<double, std::size_t>> stamps;  ///< in ticks, and where in the sound
  std::atomic<std::size_t> length{0};

  static void receive(void* context, BRV_AudioBuffer* buffer) {
    auto& self = *static_cast<AudioReceiver*>(context);
    self.stamps.emplace_back(buffer->timeStamp, self.bytes.size() / 4);
    self.bytes.append(static_cast<const char*>(buffer->data), static_cast<std::size_t>(buffer->dataLength));
    self.length = self.bytes.size();
  }
};

/// Sound of two channels, received until that many frames have come.
std::string receivedSound(std::size_t frames) {
  Host host;
  AudioReceiver received;
  host.registerAudio("Clip Audio", AudioReceiver::receive, &received);
  waitFor([&] { return received.length >= frames * 4; });
  const double ticks = host.timescale("Clip Audio");
  host.uninitialize();
  for (const auto& [stamp, position] : received.stamps) {
    EXPECT_NEAR(stamp / ticks, static_cast<double>(position) / 44100, 1.0 / 44100) << "the time of its first frame";
  }
  return received.bytes;
}

TEST_F(ClipTest, SoundInTheHostsFormatArrivesBitIdentical) {
  constexpr std::size_t Frames = 20'000;
  const std::string sound = noise(Frames * 4);
  play("audio\nsound", waveFile(waveFormat(1, 2, 44100, 16), sound));

  EXPECT_TRUE(receivedSound(Frames) == sound);
}

TEST_F(ClipTest, SoundOfAnotherRateArrivesWithItsLengthAndWithoutASeam) {
  std::vector<float> ramp(2 * 48'000);
  for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<float>(i / 2) / 48'000 * (i % 2 ? -1.0F : 1.0F);
  const std::string bytes(reinterpret_cast<const char*>(ramp.data()), ramp.size() * sizeof(float));
  play("audio\nsound", waveFile(waveFormat(3, 2, 48000, 32), bytes));

  const std::string sound = receivedSound(44100 - 512);

  std::vector<std::int16_t> samples(sound.size() / 2);
  std::memcpy(samples.data(), sound.data(), sound.size());
  EXPECT_NEAR(static_cast<double>(samples.size()), 2 * 44100, 2 * 512);
  for (std::size_t i = 400; i < samples.size(); ++i) {
    const double ideal = 32768.0 * static_cast<double>(i / 2) / 44100;
    ASSERT_NEAR(samples[i], i % 2 ? -ideal : ideal, 2) << "a ramp shows every seam; sample " << i;
  }
}

}  // namespace

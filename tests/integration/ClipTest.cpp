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

struct Received {
  std::string bytes;                                   ///< Sound, or pictures in the order Y0 Cb Y1 Cr without padding.
  std::vector<std::pair<double, std::size_t>> stamps;  ///< in ticks, and where in the bytes
  std::atomic<std::size_t> length{0};

  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<Received*>(context);
    auto* pixels = static_cast<CVPixelBufferRef>(buffer->data);
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const char* row = static_cast<const char*>(CVPixelBufferGetBaseAddress(pixels));
    std::string picture;
    for (int y = 0; y < buffer->height; ++y, row += buffer->rowBytes) {
      picture.append(row, static_cast<std::size_t>(buffer->width) * 2);
    }
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    self.add(static_cast<double>(buffer->timeStamp), picture);
  }
  static void onAudio(void* context, BRV_AudioBuffer* buffer) {
    static_cast<Received*>(context)->add(
        static_cast<double>(buffer->timeStamp),
        {static_cast<const char*>(buffer->data), static_cast<std::size_t>(buffer->dataLength)});
  }
  void add(double stamp, std::string_view more) {
    stamps.emplace_back(stamp, bytes.size());
    length = bytes.append(more).size();
  }
};

class ClipTest : public FrameworkTest {
 protected:
  std::string noise(std::size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(_random());
    return bytes;
  }

  /// What a host receives of a clip until that many bytes have come, in stamps that follow the bytes.
  std::string receive(bool isVideo, const std::string& clip, std::size_t length, double bytesPerSecond) {
    const std::string source = isVideo ? "Clip Video" : "Clip Audio";
    rigs::install("[device]\nid = clip\nname = Clip\npacing = consumer\nmedia = " +
                  std::string(isVideo ? "video\npicture" : "audio\nsound") + " = media " + _folder.write("clip", clip) +
                  ", once\n");
    Host host;
    Received received;
    isVideo ? host.registerVideo(source, Received::onVideo, &received)
            : host.registerAudio(source, Received::onAudio, &received);
    for (int i = 0; i < 6000 && received.length < length; ++i) runMainLoop(0.01);
    const double ticksPerSecond = host.timescale(source);
    host.uninitialize();
    for (const auto& [stamp, position] : received.stamps) {
      EXPECT_NEAR(stamp / ticksPerSecond, static_cast<double>(position) / bytesPerSecond, isVideo ? 1e-9 : 1.0 / 44100);
    }
    EXPECT_EQ(host.logged("Dropped a Frame!\n"), 0);
    return received.bytes;
  }

 private:
  const TemporaryFolder _folder;
  std::mt19937 _random{1};
};

TEST_F(ClipTest, EveryFrameArrivesOnceInOrderAndBitIdentical) {
  const struct {
    std::size_t width, height;
    const char* rate;
    double framesPerSecond;
  } cases[] = {{64, 36, "25:1", 25}, {176, 144, "30000:1001", 30000.0 / 1001}, {640, 360, "60:1", 60}};
  for (const auto& [width, height, rate, framesPerSecond] : cases) {
    std::string clip =
        "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" + rate + " Ip A1:1 C422\n";
    const std::size_t pairs = width / 2 * height;
    std::string expected;
    for (int i = 0; i < 50; ++i) {
      const std::string planes = noise(4 * pairs);
      clip += "FRAME\n" + planes;
      for (std::size_t pair = 0; pair < pairs; ++pair) {
        expected += {planes[2 * pair], planes[2 * pairs + pair], planes[2 * pair + 1], planes[3 * pairs + pair]};
      }
    }
    EXPECT_TRUE(receive(true, clip, expected.size(), framesPerSecond * static_cast<double>(4 * pairs)) == expected);
  }
}

TEST_F(ClipTest, SoundInTheHostsFormatArrivesBitIdentical) {
  const std::string sound = noise(80'000);
  EXPECT_TRUE(receive(false, waveFile(waveFormat(1, 2, 44100, 16), sound), sound.size(), 4 * 44100) == sound);
}

TEST_F(ClipTest, SoundOfAnotherRateArrivesWithItsLengthAndWithoutASeam) {
  std::vector<float> ramp(2 * 48'000);
  for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<float>(i / 2) / 48'000 * (i % 2 ? -1.0F : 1.0F);
  const std::string bytes(reinterpret_cast<const char*>(ramp.data()), ramp.size() * sizeof(float));

  const std::string sound = receive(false, waveFile(waveFormat(3, 2, 48000, 32), bytes), 4 * (44100 - 512), 4 * 44100);

  std::vector<std::int16_t> samples(sound.size() / 2);
  std::memcpy(samples.data(), sound.data(), sound.size());
  EXPECT_NEAR(static_cast<double>(samples.size()), 2 * 44100, 2 * 512);
  for (std::size_t i = 400; i < samples.size(); ++i) {
    const double ideal = 32768.0 * static_cast<double>(i / 2) / 44100;
    ASSERT_NEAR(samples[i], i % 2 ? -ideal : ideal, 2) << "a ramp shows every seam; sample " << i;
  }
}

}  // namespace

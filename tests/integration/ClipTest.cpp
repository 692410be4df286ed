#include <CoreVideo/CVPixelBuffer.h>
#include <gmock/gmock.h>
#include <simulated/SimulatedProvider.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"

// Clips played into the module, paced by the consumer: what a host receives is what the file holds.

namespace {

using hardware::simulated::MediaSource;
using hardware::simulated::Pacing;
using hardware::simulated::Provider;
using hardware::simulated::Rig;
using hardware::simulated::RigDevice;

class ClipTest : public FrameworkTest {
 protected:
  ClipTest() { std::filesystem::create_directories(folder); }
  ~ClipTest() override { std::filesystem::remove_all(folder); }

  std::string write(const std::string& name, const std::string& bytes) {
    const std::string path = folder / name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  static RigDevice player(const std::string& name) {
    RigDevice device;
    device.description.name = name;
    device.description.uniqueID = name;
    device.pacing = Pacing::consumer;
    return device;
  }
  static void install(std::vector<RigDevice> devices) {
    Rig rig;
    rig.devices = std::move(devices);
    hardware::installSystemProvider(std::make_shared<Provider>(std::move(rig)));
  }
  /// Runs the main loop until `done`, for a minute at most.
  template <typename Condition>
  static void waitFor(Condition done) {
    for (int i = 0; i < 6000 && !done(); ++i) NSRunLoop::mainRunLoop().runForSeconds(0.01);
    EXPECT_TRUE(done());
  }

  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("clips-" + std::to_string(std::random_device()()));
  std::mt19937 random{1};
};

std::string noise(std::mt19937& random, std::size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

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
      const std::string planes = noise(random, c.width * c.height * 2);
      file += "FRAME\n" + planes;
      expected.push_back(packed(planes, c.width, c.height));
    }
    RigDevice camera = player("Clip");
    camera.description.hasVideo = true;
    camera.picture = MediaSource{write("clip.y4m", file), false};
    install({camera});
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
  std::vector<std::int64_t> times;
  std::atomic<std::size_t> length{0};

  static void receive(void* context, BRV_AudioBuffer* buffer) {
    auto& self = *static_cast<AudioReceiver*>(context);
    self.bytes.append(static_cast<const char*>(buffer->data), static_cast<std::size_t>(buffer->dataLength));
    self.times.push_back(buffer->timeStamp);
    self.length = self.bytes.size();
  }
};

template <typename T>
std::string bytesOf(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

std::string wav(std::uint16_t tag, std::uint16_t bits, std::uint32_t rate, const std::string& data) {
  const auto frame = static_cast<std::uint16_t>(2 * bits / 8);
  return "RIFF" + bytesOf(static_cast<std::uint32_t>(36 + data.size())) + "WAVEfmt " + bytesOf(std::uint32_t{16}) +
         bytesOf(tag) + bytesOf(std::uint16_t{2}) + bytesOf(rate) + bytesOf(rate * frame) + bytesOf(frame) +
         bytesOf(bits) + "data" + bytesOf(static_cast<std::uint32_t>(data.size())) + data;
}

TEST_F(ClipTest, SoundInTheHostsFormatArrivesBitIdentical) {
  constexpr std::size_t Frames = 20'000;
  const std::string sound = noise(random, Frames * 4);
  RigDevice microphone = player("Sound");
  microphone.description.hasAudio = true;
  microphone.sound = MediaSource{write("sound.wav", wav(1, 16, 44100, sound)), false};
  install({microphone});
  Host host;
  AudioReceiver received;

  host.registerAudio("Sound Audio", AudioReceiver::receive, &received);
  waitFor([&] { return received.length >= sound.size(); });
  host.uninitialize();

  EXPECT_TRUE(received.bytes == sound);
}

TEST_F(ClipTest, SoundOfAnotherRateArrivesWithItsLengthAndWithoutASeam) {
  constexpr std::size_t Frames = 48'000;
  std::string sound;
  for (std::size_t i = 0; i < Frames; ++i) {
    const float ramp = static_cast<float>(i) / Frames;
    sound += bytesOf(ramp) + bytesOf(-ramp);
  }
  RigDevice microphone = player("Sound");
  microphone.description.hasAudio = true;
  microphone.sound = MediaSource{write("sound.wav", wav(3, 32, 48000, sound)), false};
  install({microphone});
  Host host;
  AudioReceiver received;

  host.registerAudio("Sound Audio", AudioReceiver::receive, &received);
  waitFor([&] { return received.length >= (44100 - 512) * 4; });
  host.uninitialize();

  const std::size_t frames = received.bytes.size() / 4;
  EXPECT_NEAR(static_cast<double>(frames), 44100, 512);
  std::vector<std::int16_t> samples(frames * 2);
  std::memcpy(samples.data(), received.bytes.data(), received.bytes.size());
  for (std::size_t i = 200; i < frames; ++i) {
    const double ideal = 32768.0 * static_cast<double>(i) / 44100;
    ASSERT_NEAR(samples[2 * i], ideal, 2) << "a ramp shows every seam; frame " << i;
    ASSERT_NEAR(samples[2 * i + 1], -ideal, 2);
  }
}

}  // namespace

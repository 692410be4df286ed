#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "AudioTrack.h"
#include "BoundedQueue.h"
#include "TemporaryDirectory.h"
#include "VideoTrack.h"

namespace brvhost {
namespace {

constexpr std::chrono::milliseconds NoPatience{0};
constexpr std::chrono::hours AllPatience{1};

TEST(BoundedQueueTest, KeepsTheOrderRefusesWhenFullAndEmptiesAfterClosing) {
  BoundedQueue<int> queue(2);
  const auto put = [&](int value) { return queue.push(NoPatience, [value](int& item) { item = value; }); };
  int item = 0;

  EXPECT_TRUE(put(1));
  EXPECT_TRUE(put(2));
  EXPECT_FALSE(put(3));
  EXPECT_TRUE(queue.pop(item));
  EXPECT_EQ(item, 1);
  EXPECT_TRUE(put(4));
  queue.close();
  EXPECT_FALSE(put(5));
  EXPECT_TRUE(queue.pop(item));
  EXPECT_EQ(item, 2);
  EXPECT_TRUE(queue.pop(item));
  EXPECT_EQ(item, 4);
  EXPECT_FALSE(queue.pop(item));
}

TEST(BoundedQueueTest, APatientProducerLosesNothingToASlowConsumer) {
  constexpr int Items = 5'000;
  BoundedQueue<int> queue(3);
  std::thread producer([&] {
    for (int i = 0; i < Items; ++i) EXPECT_TRUE(queue.push(AllPatience, [i](int& item) { item = i; }));
    queue.close();
  });

  int item = 0;
  int expected = 0;
  while (queue.pop(item)) EXPECT_EQ(item, expected++);
  producer.join();

  EXPECT_EQ(expected, Items);
}

TEST(BoundedQueueTest, AnItemThatCannotBeFilledLeavesItsPlaceFree) {
  BoundedQueue<int> queue(1);
  EXPECT_THROW(queue.push(NoPatience, [](int&) { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_TRUE(queue.push(NoPatience, [](int& item) { item = 8; }));
}

/// Hands frames to a track as a module does.
class VideoTrackTest : public testing::Test {
 protected:
  void SetUp() override { _track->arm(); }

  VideoTrack& useFile(const std::string& path, std::optional<double> seconds = {}) {
    _track = std::make_unique<VideoTrack>(path, seconds, [this] {
      ++_timingQueries;
      return _timing;
    });
    _track->arm();
    return *_track;
  }

  void deliver(std::int64_t stamp, std::size_t width = 2, std::int32_t flags = BRV_FLAG_NOT_FIRST) {
    CVPixelBufferRef buffer = nullptr;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, width, 1, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer),
              kCVReturnSuccess);
    CVPixelBufferLockBaseAddress(buffer, 0);
    std::memset(CVPixelBufferGetBaseAddress(buffer), 'p', CVPixelBufferGetBytesPerRow(buffer));
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    BRV_VideoBuffer record = {};
    record.format = BRV_FORMAT_PIXEL_BUFFER;
    record.width = static_cast<std::int32_t>(width);
    record.height = 1;
    record.pixelAspectRatio = 1;
    record.timeStamp = stamp;
    record.flags = flags;
    record.data = buffer;
    _track->frameArrived(record);
    CVPixelBufferRelease(buffer);
  }

  TemporaryDirectory _directory;
  FrameTiming _timing{25, 1};
  std::atomic<int> _timingQueries{0};
  std::unique_ptr<VideoTrack> _track = std::make_unique<VideoTrack>(_directory.file("clip.y4m"), std::nullopt, [this] {
    ++_timingQueries;
    return _timing;
  });
};

TEST_F(VideoTrackTest, IgnoresWhatCameBeforeItWasArmed) {
  _track = std::make_unique<VideoTrack>(_directory.file("clip.y4m"), std::nullopt, [this] { return _timing; });
  deliver(0);
  _track->arm();
  deliver(1);
  _track->finish();

  EXPECT_EQ(_track->statistics().timeline.firstStamp(), 1);
  EXPECT_EQ(_track->statistics().written, 1);
}

TEST_F(VideoTrackTest, EndsTheFileWhereThePictureChangesItsSize) {
  deliver(0);
  deliver(1);
  deliver(2, 4);
  _track->finish();

  const VideoStatistics statistics = _track->statistics();
  EXPECT_EQ(_directory.contents("clip.y4m"),
            "YUV4MPEG2 W2 H1 F25:1 Ip A1:1 C422\n"
            "FRAME\npppp"
            "FRAME\npppp");
  EXPECT_THAT(statistics.ending.value_or(""), testing::HasSubstr("changed from 2 x 1 to 4 x 1"));
  EXPECT_EQ(statistics.notWritten, 1);
  EXPECT_TRUE(_track->isComplete());
}

TEST_F(VideoTrackTest, AsksAgainHowTimeIsCountedWhenTheFormatChanged) {
  _timing = {600, 20};
  deliver(0, 2, 0);
  deliver(20);
  EXPECT_EQ(_timingQueries, 1);

  _timing = {90'000, 3'000};
  deliver(900'000, 2, BRV_FLAG_NOT_FIRST | BRV_FLAG_FORMAT_CHANGED);
  deliver(906'000);
  _track->finish();

  EXPECT_EQ(_timingQueries, 2);
  EXPECT_EQ(_track->statistics().timeline.dropped(), 1);
  EXPECT_EQ(_track->statistics().written, 4);
}

TEST_F(VideoTrackTest, ReportsAFullDiskAndKeepsTheAccount) {
  useFile("/dev/full");
  deliver(0);
  _track->finish();

  const VideoStatistics statistics = _track->statistics();
  EXPECT_THAT(statistics.failure.value_or(""), testing::HasSubstr("No space left"));
  EXPECT_EQ(statistics.timeline.delivered(), 1);
  EXPECT_EQ(statistics.notWritten, 1);
}

TEST_F(VideoTrackTest, LeavesNoFileBehindWhenNoFrameCame) {
  _track->finish();
  EXPECT_FALSE(_directory.contains("clip.y4m"));
}

BRV_AudioBuffer soundOf(std::vector<std::uint8_t>& samples, std::int64_t stamp, std::int32_t sampleRate = 44'100) {
  BRV_AudioBuffer record = {};
  record.format = BRV_FORMAT_PCM;
  record.sampleRate = sampleRate;
  record.channels = 2;
  record.bitsPerSample = 16;
  record.dataLength = static_cast<std::int32_t>(samples.size());
  record.timeStamp = stamp;
  record.data = samples.data();
  return record;
}

TEST(AudioTrackTest, CutsAtTheFrameThatFillsTheTimeAskedFor) {
  const TemporaryDirectory directory;
  AudioTrack track(directory.file("sound.wav"), 0.01);
  track.arm();
  std::vector<std::uint8_t> samples(300 * 4, 1);
  for (const std::int64_t stamp : {0, 300, 600}) track.soundArrived(soundOf(samples, stamp));
  track.finish();

  EXPECT_TRUE(track.isComplete());
  EXPECT_EQ(track.statistics().frames, 441);
  EXPECT_EQ(track.statistics().lastStamp, 300);
  EXPECT_EQ(directory.contents("sound.wav").size(), WAVHeaderBytes + 441 * 4);
}

TEST(AudioTrackTest, WritesWholeFramesAndEndsWhereTheFormatChanges) {
  const TemporaryDirectory directory;
  AudioTrack track(directory.file("sound.wav"), std::nullopt);
  track.arm();
  std::vector<std::uint8_t> ragged(4 * 10 + 3, 1);
  std::vector<std::uint8_t> none;
  track.soundArrived(soundOf(none, 0));
  track.soundArrived(soundOf(ragged, 0));
  track.soundArrived(soundOf(ragged, 10, 48'000));
  track.finish();

  EXPECT_EQ(directory.contents("sound.wav").size(), WAVHeaderBytes + 4 * 10);
  EXPECT_TRUE(track.statistics().ending.has_value());
  EXPECT_EQ(track.statistics().notWritten, 10);
}

}  // namespace
}  // namespace brvhost

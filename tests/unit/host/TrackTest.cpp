#include <gmock/gmock.h>

#include <limits>
#include <thread>

#include "AudioTrack.h"
#include "BoundedQueue.h"
#include "Failure.h"
#include "MediumWatch.h"
#include "VideoTrack.h"
#include "WAVWriter.h"
#include "support/MediaFiles.h"
#include "support/Samples.h"
#include "support/TemporaryFolder.h"

namespace brvhost {
namespace {

TEST(BoundedQueueTest, RefusesWhenFullAndLosesNothingOfAPatientProducer) {
  BoundedQueue<int> queue(2);
  const auto put = [&](int value, std::chrono::hours patience) {
    return queue.push(patience, [value](int& item) { item = value; });
  };
  EXPECT_THROW(queue.push({}, [](int&) { throw std::bad_alloc(); }), std::bad_alloc);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(put(i, {}), i < 2);

  const std::jthread producer([&] {
    for (int i = 2; i < 1'000; ++i) EXPECT_TRUE(put(i, std::chrono::hours(1)));
    queue.close();
    EXPECT_FALSE(put(9, {}));
  });
  int item = 0, expected = 0;
  while (queue.pop(item)) EXPECT_EQ(item, expected++);
  EXPECT_EQ(expected, 1'000);
}

/// Hands a frame of one line to a track, as a module does.
void deliver(VideoTrack& track, std::int64_t stamp, std::int32_t width = 2, std::int32_t flags = BRV_FLAG_NOT_FIRST) {
  const auto picture = samples::picture(static_cast<std::size_t>(width), 1);
  BRV_VideoBuffer record = {};
  record.format = BRV_FORMAT_PIXEL_BUFFER;
  record.width = width;
  record.height = 1;
  record.pixelAspectRatio = 1;
  record.timeStamp = stamp;
  record.flags = flags;
  record.data = picture.get();
  track.frameArrived(record);
}

TEST(VideoTrackTest, EndsTheFileWhereThePictureChangesItsSizeOrTheDiskIsFull) {
  const TemporaryFolder directory;
  for (const std::string& path : {directory.file("clip.y4m"), std::string("/dev/full")}) {
    VideoTrack track(path, std::nullopt, [] { return FrameTiming{25, 1}; });
    deliver(track, 0);  // not armed yet
    track.arm();
    deliver(track, 1);
    deliver(track, 2, 4);
    track.finish();

    const VideoStatistics statistics = track.statistics();
    EXPECT_EQ(statistics.timeline.firstStamp(), 1);
    EXPECT_EQ(statistics.timeline.delivered(), statistics.written + statistics.notWritten);
    EXPECT_EQ(statistics.frames, statistics.timeline.delivered());
    EXPECT_TRUE(statistics.callbacks() == 3 && statistics.waiting() == 0);
    EXPECT_THAT(statistics.ending.value_or("") + statistics.failure.value_or(""),
                testing::AnyOf(testing::HasSubstr("changed from 2 x 1 to 4 x 1"), testing::HasSubstr("No space left")));
  }
  EXPECT_EQ(directory.contents("clip.y4m").size(),
            std::string("YUV4MPEG2 W2 H1 F25:1 Ip A1:1 C422\nFRAME\n").size() + 4);
}

TEST(VideoTrackTest, AsksAgainHowTimeIsCountedOnlyWhenTheFormatChanged) {
  FrameTiming timing = {600, 20};
  VideoTrack track("/dev/null", std::nullopt, [&] { return timing; });
  track.arm();
  deliver(track, 0, 2, 0);
  timing = {90'000, 3'000};
  deliver(track, 40);
  deliver(track, 9'000, 2, BRV_FLAG_NOT_FIRST | BRV_FLAG_FORMAT_CHANGED);
  deliver(track, 15'000);
  track.finish();

  EXPECT_TRUE(track.statistics().timeline.gaps().missing() == 2 && track.statistics().written == 4);
}

TEST(AudioTrackTest, WritesWholeFramesCutsAtTheTimeAskedForAndEndsWhereTheFormatChanges) {
  const TemporaryFolder directory;
  for (const std::int32_t secondRate : {44'100, 48'000}) {
    AudioTrack track(directory.file("sound.wav"), 0.01);
    track.arm();
    std::vector<std::uint8_t> samples(300 * 4 + 3, 1);
    BRV_AudioBuffer record = {BRV_FORMAT_PCM, 44'100, 2, 16, 0, 0, 0, 0, 0, samples.data()};
    track.soundArrived(record);
    record.dataLength = static_cast<std::int32_t>(samples.size());
    record.channels = std::numeric_limits<std::int32_t>::max();  // of which no frame is whole
    track.soundArrived(record);
    record.channels = 2;
    for (record.timeStamp = 0; record.timeStamp <= 600; record.timeStamp += 300) {
      track.soundArrived(record);
      record.sampleRate = secondRate;
    }
    track.finish();

    const bool isWhole = secondRate == 44'100;
    EXPECT_TRUE(track.isComplete());
    EXPECT_EQ(track.statistics().notWritten, isWhole ? 0 : 480 - 300);
    EXPECT_EQ(track.statistics().ending.has_value(), !isWhole);
    EXPECT_EQ(directory.contents("sound.wav").size(), WAVHeaderBytes + (isWhole ? 441u : 300u) * 4);
  }
}

TEST(AudioTrackTest, EndsByTheTimeStampsWhereSoundIsMissingAndTakesOneFrameAtLeast) {
  for (const auto& [seconds, frames] : {std::pair{0.055, 3 * 441 + 221}, {0.04, 3 * 441}, {1e-9, 1}}) {
    AudioTrack track("/dev/null", seconds);
    track.arm();
    std::vector<std::uint8_t> samples(441 * 4);
    BRV_AudioBuffer record = {BRV_FORMAT_PCM, 44'100, 2, 16, 441 * 4, 0, 0, 0, 0, samples.data()};
    for (record.timeStamp = 0; record.timeStamp < 4'800; record.timeStamp += record.timeStamp == 960 ? 1'440 : 480) {
      track.soundArrived(record);
    }
    EXPECT_TRUE(track.isComplete() && track.statistics().frames == frames) << seconds;
    EXPECT_NEAR(track.statistics().endSeconds(), seconds, 1.0 / 44'100) << seconds;
    EXPECT_EQ(track.statistics().ending.value_or(""),
              seconds == 0.04 ? "the sound ended at 0.030 s, not at the 0.04 s asked for" : "");
  }
}

TEST(MediumWatchTest, TellsOnceWhatHasStoppedAndOnceWhatIsBackUnlessNoMoreIsWanted) {
  MediumState state;
  const auto start = MediumWatch::Clock::now();
  MediumWatch watch(
      "picture", [&] { return state; }, 60, start);
  const auto newsAt = [&](int seconds) {
    watch.look(start + std::chrono::seconds(seconds));
    return watch.takeNews().value_or("");
  };
  EXPECT_EQ(newsAt(1), "");
  EXPECT_EQ(newsAt(2), "no picture for 2 s");  // it may never come
  EXPECT_EQ(newsAt(3), "");
  ++state.frames;
  EXPECT_EQ(newsAt(4), "the picture is back");
  state = {2, 20, 10, false};
  EXPECT_EQ(newsAt(9), "");
  EXPECT_EQ(newsAt(28), "") << "a camera of a frame in ten seconds";
  EXPECT_EQ(newsAt(29), "no picture for 20 s");
  state = {3, 56, 10, false};
  newsAt(30);
  EXPECT_EQ(newsAt(50), "") << "it stops where it was to end";
  EXPECT_TRUE(watch.isComplete());
}

std::string headerOf(std::uint64_t dataBytes) {
  const auto bytes = wavHeader({}, dataBytes);
  return {bytes.begin(), bytes.end()};
}

TEST(WAVWriterTest, WritesTheHeaderThatReadersExpectAndBecomesRF64WhereASizeNoLongerFits) {
  EXPECT_THROW(WAVWriter(OutputFile("/dev/null"), {44'100, 2, 24}), Failure);
  const std::string format = chunk("fmt ", waveFormat(1, 2, 44'100, 16)) + "data";
  constexpr std::uint64_t Large = 0xFFFF'FFFFULL - 72 + 1;
  for (const std::uint64_t data : {std::uint64_t{400}, Large - 4}) {
    const auto size = static_cast<std::uint32_t>(data);
    EXPECT_EQ(headerOf(data), "RIFF" + littleEndian(size + 72) + "WAVE" + chunk("JUNK", std::string(28, '\0')) +
                                  format + littleEndian(size));
  }
  const std::string sizes = littleEndian(Large + 72) + littleEndian(Large) + littleEndian(Large / 4) + littleEndian(0u);
  EXPECT_EQ(headerOf(Large),
            "RF64" + littleEndian(0xFFFF'FFFFu) + "WAVE" + chunk("ds64", sizes) + format + littleEndian(0xFFFF'FFFFu));
}

TEST(WAVWriterTest, KeepsTheSizesOfAnUnfinishedFileWithinASecondOfTheTruth) {
  const TemporaryFolder directory;
  const std::vector<std::uint8_t> half(88'200, 7);
  WAVWriter writer(OutputFile(directory.file("sound.wav")), {});
  for (const std::uint64_t stated : {0u, 176'400u, 176'400u}) {
    writer.write(half.data(), half.size());
    EXPECT_EQ(directory.contents("sound.wav").substr(0, WAVHeaderBytes), headerOf(stated));
  }
  writer.close();
  EXPECT_EQ(directory.contents("sound.wav"), headerOf(264'600) + std::string(264'600, 7));
}

}  // namespace
}  // namespace brvhost

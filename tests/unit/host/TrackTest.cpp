#include <gmock/gmock.h>

#include "capture/MediumWatch.h"
#include "record/AudioTrack.h"
#include "record/VideoTrack.h"
#include "record/WAVWriter.h"
#include "support/MediaFiles.h"
#include "support/Samples.h"
#include "support/TemporaryFolder.h"

namespace brvhost {
namespace {

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
  track.frameArrived(brv::Frame(record, {}));
}

TEST(VideoTrackTest, EndsTheFileWhereThePictureChangesItsSizeOrTheDiskIsFull) {
  const TemporaryFolder directory;
  for (const std::string& path : {directory.file("clip.y4m"), std::string("/dev/full")}) {
    VideoTrack track(path, std::nullopt, [] { return FrameTiming{25, 1}; });
    deliver(track, 1);
    deliver(track, 2, 4);
    track.finish();

    const VideoStatistics statistics = track.statistics();
    EXPECT_EQ(statistics.timeline.firstStamp(), 1);
    EXPECT_EQ(statistics.timeline.delivered(), statistics.written + statistics.notWritten);
    EXPECT_EQ(statistics.frames, statistics.timeline.delivered());
    EXPECT_TRUE(statistics.callbacks() == 2 && statistics.waiting() == 0);
    EXPECT_THAT(statistics.ending.value_or("") + statistics.failure.value_or(""),
                testing::AnyOf(testing::HasSubstr("changed from 2 x 1 to 4 x 1"), testing::HasSubstr("No space left")));
  }
  EXPECT_EQ(directory.contents("clip.y4m").size(),
            std::string("YUV4MPEG2 W2 H1 F25:1 Ip A1:1 C422\nFRAME\n").size() + 4);
}

TEST(VideoTrackTest, AsksAgainHowTimeIsCountedOnlyWhenTheFormatChanged) {
  FrameTiming timing = {600, 20};
  VideoTrack track("/dev/null", std::nullopt, [&] { return timing; });
  deliver(track, 0, 2, 0);
  timing = {90'000, 3'000};
  deliver(track, 40);
  deliver(track, 9'000, 2, BRV_FLAG_NOT_FIRST | BRV_FLAG_FORMAT_CHANGED);
  deliver(track, 15'000);
  track.finish();

  EXPECT_TRUE(track.statistics().timeline.gaps().missing() == 2 && track.statistics().written == 4);
}

TEST(AudioTrackTest, EndsByTheTimeStampsWhereSoundIsMissingAndTakesOneFrameAtLeast) {
  for (const auto& [seconds, frames] : {std::pair{0.055, 3 * 441 + 221}, {0.04, 3 * 441}, {1e-9, 1}}) {
    AudioTrack track("/dev/null", seconds);
    std::vector<std::uint8_t> samples(441 * 4);
    BRV_AudioBuffer record = {BRV_FORMAT_PCM, 44'100, 2, 16, 441 * 4, 0, 0, 0, 0, samples.data()};
    for (record.timeStamp = 0; record.timeStamp < 4'800; record.timeStamp += record.timeStamp == 960 ? 1'440 : 480) {
      track.soundArrived(brv::Sound(record, {}, {}));
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

TEST(WAVWriterTest, BecomesRF64WhereASizeNoLongerFits) {
  const std::string format = chunk("fmt ", waveFormat(1, 2, 44'100, 16)) + "data";
  constexpr std::uint64_t Large = 0xFFFF'FFFFULL - 72 + 1;
  const std::string sizes = littleEndian(Large + 72) + littleEndian(Large) + littleEndian(Large / 4) + littleEndian(0u);
  const auto small = wavHeader({}, Large - 4), large = wavHeader({}, Large);
  EXPECT_EQ(std::string(small.begin(), small.end()), "RIFF" + littleEndian(0xFFFF'FFFFu - 3) + "WAVE" +
                                                         chunk("JUNK", std::string(28, '\0')) + format +
                                                         littleEndian(static_cast<std::uint32_t>(Large - 4)));
  EXPECT_EQ(std::string(large.begin(), large.end()),
            "RF64" + littleEndian(0xFFFF'FFFFu) + "WAVE" + chunk("ds64", sizes) + format + littleEndian(0xFFFF'FFFFu));
}

}  // namespace
}  // namespace brvhost

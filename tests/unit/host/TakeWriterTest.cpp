#include <gmock/gmock.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "capture/MediumWatch.h"
#include "common/Failure.h"
#include "record/RecordReport.h"
#include "record/TakeDiary.h"
#include "record/TakeWriter.h"
#include "support/MediaReader.h"
#include "support/Samples.h"
#include "support/TemporaryFolder.h"

namespace brvhost {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr FrameTiming NTSC{30'000, 1'001};

/// Feeds a take picture by picture, and runs of sound of which each sample is its number.
class TakeWriterTest : public testing::Test {
 protected:
  TakeWriter& take(const std::string& name, std::optional<double> seconds = {}, std::optional<double> segment = {}) {
    TakeOptions options{.target = folder.file(name), .encoding = encodingFor(name, "", ""), .hasVideo = true};
    options.hasAudio = name.find(".y4m") == name.npos;
    options.seconds = seconds;
    options.segmentSeconds = segment;
    return writer.emplace(options);
  }

  static brv::Time at(double seconds) {
    return brv::Time(std::chrono::nanoseconds(std::llround(1e9 * (1'000 + seconds))));
  }

  /// The number of the picture is its time, and its luma.
  void picture(int number, std::size_t width = 32) {
    const auto buffer = samples::picture(width, 2);
    CVPixelBufferLockBaseAddress(buffer.get(), 0);
    std::memset(CVPixelBufferGetBaseAddress(buffer.get()), number, CVPixelBufferGetDataSize(buffer.get()));
    CVPixelBufferUnlockBaseAddress(buffer.get(), 0);
    BRV_VideoBuffer record = {};
    record.width = static_cast<std::int32_t>(width);
    record.height = 2;
    record.pixelAspectRatio = 1;
    record.timeStamp = 30'000'000 + 1'001 * number;
    record.data = buffer.get();
    writer->picture(brv::Frame(record, at(number * 1'001 / 30'000.0)), NTSC, 0);
  }

  /// Of 441 frames, from that frame on.
  void sound(std::int64_t first, double lateSeconds = 0) {
    SoundRun run{at(static_cast<double>(first) / SoundRate + lateSeconds), {}};
    for (std::int64_t frame = first; frame < first + 441; ++frame)
      run.samples.insert(run.samples.end(), 2, sampleAt(frame));
    writer->sound(std::move(run));
  }

  static std::int16_t sampleAt(std::int64_t frame) { return static_cast<std::int16_t>(frame); }

  /// The numbers of the frames in it, 0 for silence.
  static std::vector<std::int16_t> framesOf(const DecodedMedia& media) {
    std::vector<std::int16_t> samples(media.sound.size() / 2), frames;
    std::memcpy(samples.data(), media.sound.data(), media.sound.size());
    for (std::size_t i = 0; i < samples.size(); i += 2) frames.push_back(samples[i]);
    return frames;
  }

  TemporaryFolder folder;
  std::optional<TakeWriter> writer;
};

TEST_F(TakeWriterTest, BothMediaBeginTogetherToASampleAndEndWhereTheyShall) {
  take("take.mkv", 0.5);
  picture(0);  // before there is sound
  for (std::int64_t first = 2'000; first < 30'000; first += 441) {
    sound(first);
    if (first % 1'323 == 2'000 % 1'323) picture(static_cast<int>(first / 1'471) + 1);
  }
  writer->finish();

  const DecodedMedia media = decodeMedia(folder.file("take.mkv"));
  ASSERT_FALSE(media.pictures.empty());
  const int firstPicture = media.pictures[0][0];
  EXPECT_GE(firstPicture, 2);
  const auto frames = framesOf(media);
  EXPECT_EQ(frames.size(), SoundRate / 2U);
  EXPECT_EQ(frames[0], std::lround(firstPicture * 1'001 / 30'000.0 * SoundRate));
  for (std::size_t i = 1; i < frames.size(); ++i) ASSERT_EQ(frames[i], frames[0] + static_cast<int>(i)) << i;
  EXPECT_TRUE(media.stamps[0] == 0 && media.soundSeconds == 0);
  const TakeAccount& account = writer->account();
  EXPECT_TRUE(account.pictures.isComplete && account.sound.isComplete);
  EXPECT_EQ(account.pictures.delivered, std::ssize(media.pictures));
  EXPECT_EQ(account.sound.delivered + account.sound.outside, (30'000 - 2'000 + 440) / 441 * 441);
}

TEST_F(TakeWriterTest, StampsAreTheSourcesAndWhatIsMissingIsSilence) {
  take("take.mov");
  sound(0);
  for (const int number : {0, 1, 2, 5, 6}) picture(number);
  for (std::int64_t first = 441; first < 10'000; first += first == 2'205 ? 3 * 441 : 441) sound(first);
  writer->finish();

  const DecodedMedia media = decodeMedia(folder.file("take.mov"));
  EXPECT_EQ(media.ticksPerSecond, 30'000);
  EXPECT_THAT(media.stamps, ElementsAre(0, 1'001, 2'002, 5'005, 6'006));
  const auto frames = framesOf(media);
  for (std::size_t i = 0; i < frames.size(); ++i)
    ASSERT_EQ(frames[i], i < 2'646 || i >= 3'528 ? sampleAt(static_cast<std::int64_t>(i)) : 0) << i;
  const TakeAccount& account = writer->account();
  EXPECT_EQ(account.pictures.gaps.missing(), 2);
  EXPECT_EQ(account.sound.gaps.missing(), 882);
  EXPECT_NEAR(account.sound.gaps.first()[0].position, 0.06, 1e-9);
  TakeOptions asked{.target = "", .encoding = encodingFor("a.mov", "", ""), .hasVideo = true, .hasAudio = true};
  EXPECT_THAT(shortfallOf(account, asked, {}, "").value_or(""), HasSubstr("28.57 % of the picture is missing"));
  EXPECT_THAT(shortfallOf(account, asked, {.seconds = 0.05, .share = 1}, "").value_or(""),
              HasSubstr("0.067 s of the picture are missing in one"));
  EXPECT_EQ(shortfallOf(account, asked, {.seconds = 0.1, .share = 1}, ""), std::nullopt);
}

TEST_F(TakeWriterTest, SegmentsHoldEveryPictureAndSampleOnce) {
  take("take.mkv", {}, 0.1);
  std::int64_t first = 0;
  for (int number = 0; number < 12; ++number) {
    for (; first < number * 1'471 + 2'500; first += 441) sound(first);
    picture(number, number < 10 ? 32 : 48);  // which begins another file too
  }
  writer->finish();

  EXPECT_THAT(writer->account().files,
              ElementsAre(folder.file("take-001.mkv"), folder.file("take-002.mkv"), folder.file("take-003.mkv"),
                          folder.file("take-004.mkv"), folder.file("take-005.mkv")));
  std::int64_t next = 0;
  int number = 0;
  for (const std::string& file : writer->account().files) {
    const DecodedMedia media = decodeMedia(file);
    EXPECT_EQ(media.stamps.at(0), 0);
    EXPECT_EQ(std::lround(number * 1'001 / 30'000.0 * SoundRate), next) << file;
    for (const std::string& planes : media.pictures) EXPECT_EQ(planes[0], number++);
    for (const std::int16_t frame : framesOf(media)) ASSERT_EQ(frame, sampleAt(next++)) << file;
  }
  EXPECT_EQ(number, 12);
  EXPECT_EQ(next, first);
}

TEST_F(TakeWriterTest, SoundStaysWithThePicturesThoughItsClockIsSlowAndAfterTheClocksBeganAnew) {
  take("take.wav");
  for (std::int64_t run = 0; run < 3'000; ++run) sound(run * 441, static_cast<double>(run) * 2e-5);
  EXPECT_NEAR(writer->account().sound.endSeconds, 30.06, 0.025);
  EXPECT_EQ(writer->account().sound.gaps.missing(), 0);
  for (std::int64_t run = 0; run < 100; ++run) sound(run * 441);
  writer->finish();
  EXPECT_NEAR(writer->account().sound.endSeconds, 31.06, 0.025);
  EXPECT_NEAR(static_cast<double>(decodeMedia(folder.file("take.wav")).sound.size()) / 4, 31.06 * SoundRate,
              0.03 * SoundRate);
}

TEST_F(TakeWriterTest, AFullDiskIsAFailureAndNothingTakesNoFilesPlace) {
  folder.write("take.mkv", "earlier");
  take("take.mkv").finish();
  EXPECT_EQ(folder.contents("take.mkv"), "earlier");

  rlimit usual{};
  getrlimit(RLIMIT_FSIZE, &usual);
  const rlimit small{400'000, usual.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  take("full.y4m");
  const auto writeMore = [&] {
    for (int number = 0; number < 99; ++number) picture(number, 1'920);
  };
  const auto failure = testing::ThrowsMessage<Failure>(HasSubstr("full.y4m: File too large"));
  EXPECT_THAT(writeMore, failure);
  EXPECT_THAT([&] { writer->finish(); }, failure);
  setrlimit(RLIMIT_FSIZE, &usual);
  const MediumAccount& account = writer->account().pictures;
  EXPECT_GT(account.notWritten, 0);
  EXPECT_EQ(account.written, std::ssize(decodeMedia(folder.file("full.y4m")).pictures));
}

TEST(EncodingTest, FollowsTheTargetAndRefusesWhatDoesNotFit) {
  EXPECT_STREQ(encodingFor("a.b/take.MOV", "prores", "").video->name, "prores");
  EXPECT_STREQ(encodingFor("-", "", "flac").audio->name, "flac");
  EXPECT_TRUE(encodingFor("srt://[::1]:9", "", "").isLive);
  const struct {
    const char *target, *video, *reason;
  } refused[] = {{"a.avi", "", "is no target"},
                 {"a", "", "is no target"},
                 {"a.d/b", "", "is no target"},
                 {"a.webm", "ffv1", "webm takes no ffv1"},
                 {"a.mkv", "aac", "no video codec \"aac\""},
                 {"a.wav", "ffv1", "takes no video"}};
  for (const auto& each : refused) {
    EXPECT_THAT([&] { encodingFor(each.target, each.video, ""); },
                testing::ThrowsMessage<UsageError>(HasSubstr(each.reason)));
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

TEST(TakeDiaryTest, StaysSmallAndKeepsTheFirstPictureOverHours) {
  TakeDiary diary;
  BRV_VideoBuffer record = {};
  const auto buffer = samples::picture(32, 2);
  record.data = buffer.get();
  for (int i = 0; i < 4 * 3'600; ++i) {
    diary.picture(i + (i > 7'000), brv::Frame(record, {}));
    diary.hole(Medium::audio, i, 0.5);
  }
  const TakeNotes notes = diary.notes();

  ASSERT_GE(notes.stills.size(), 3U);
  EXPECT_LE(notes.stills.size(), 6U);
  EXPECT_EQ(notes.stills.front().position, 0);
  EXPECT_GT(notes.stills.back().position, 7'000);
  for (const auto& still : notes.stills) EXPECT_GT(still.jpeg.size(), 100U);
  EXPECT_LE(notes.intervals.buckets().size(), Timeline::MostBuckets);
  EXPECT_GT(notes.intervals.buckets().size(), Timeline::MostBuckets / 3);
  EXPECT_EQ(std::ranges::max(notes.intervals.buckets(), {}, &Timeline::Bucket::high).high, 2'000);
  EXPECT_EQ(notes.holes.size() + notes.furtherHoles, 14'400U);
}

}  // namespace
}  // namespace brvhost

// When samples were taken, what is missing between them, and where they lie.

#include <gtest/gtest.h>
#include <spa/buffer/buffer.h>

#include <algorithm>
#include <cstdlib>

#include "capture/ChunkRing.h"
#include "capture/PictureStream.h"
#include "capture/Stamps.h"

namespace hardware::pipewire {
namespace {

using runtime::Nanoseconds;
constexpr Nanoseconds Second = runtime::NanosecondsPerSecond;
constexpr Nanoseconds Millisecond = Second / 1000;

TEST(StampsTest, VideosTimescaleIsAMultipleOfTheRateAndOfAtLeast90000) {
  const struct {
    CMTime duration;
    std::int32_t timescale;
  } cases[] = {{CMTimeMake(1, 30), 90000}, {CMTimeMake(1001, 30000), 90000}, {CMTimeMake(1001, 24000), 96000},
               {CMTimeMake(1, 7), 90006},  {CMTimeMake(2, 60), 90000},       {CMTimeMake(333333, 10000000), 10000000},
               {kCMTimeInvalid, 90000}};
  for (const auto& [duration, timescale] : cases) EXPECT_EQ(videoTimescale(duration), timescale);
}

TEST(StampsTest, APicturesTimeIsItsHeadersWhereThatIsOfThisClock) {
  constexpr Nanoseconds now = 5000 * Second;
  const struct {
    std::int64_t header;
    Nanoseconds stamp;
  } cases[] = {{now - 40 * Millisecond, now - 40 * Millisecond},
               {now + 900 * Millisecond, now + 900 * Millisecond},
               {now + 1100 * Millisecond, now},
               {now - 1100 * Millisecond, now},
               {0, now},
               {-1, now},
               {7 * Second, now}};  // counted from when a program started
  for (const auto& [header, stamp] : cases) {
    EXPECT_EQ(PictureClock().stamp({header, {}}, now, CMTimeMake(1, 30)).time, stamp) << header;
  }
}

TEST(StampsTest, PicturesNeverGoBackInTimeAndGapsInTheirNumbersAreLosses) {
  PictureClock clock;
  CMTime duration = CMTimeMake(1, 30);
  Nanoseconds now = 1000 * Second, last = 0;
  const auto lost = [&](std::optional<std::uint64_t> number, Nanoseconds elapsed, std::int64_t header = 0) {
    now += elapsed;
    const auto stamp = clock.stamp({header, number}, now, duration);
    EXPECT_GT(timeOf(stamp.time, 90'000).value, timeOf(last, 90'000).value);
    last = stamp.time;
    return stamp.lostBefore;
  };
  EXPECT_EQ(lost(100, 0), 0U);
  EXPECT_EQ(lost(101, 33 * Millisecond, now + 40 * Millisecond), 0U);
  EXPECT_EQ(lost(104, 100 * Millisecond), 2U);
  EXPECT_EQ(lost(0, 33 * Millisecond), 0U);  // it began again
  EXPECT_EQ(lost({}, 33 * Millisecond), 0U);
  EXPECT_EQ(lost(9, 33 * Millisecond), 0U);
  EXPECT_EQ(lost(1'000'000'000, 2 * Second), 61U) << "no more than there was time for";
  clock.restart();
  EXPECT_EQ(lost(2'000'000'000, Second), 0U);
  duration = kCMTimeInvalid;
  EXPECT_EQ(lost(3'000'000'000, Second), 240U);
}

TEST(StampsTest, SoundFollowsWithoutAGapThroughLateCyclesAndHasOneWhereSoundIsMissing) {
  constexpr std::uint32_t frames = 480;
  constexpr Nanoseconds length = 10 * Millisecond;
  SoundClock clock(48000);
  Nanoseconds end = 100 * Second, position = Second, previous = end - length;
  std::uint32_t lost = 0;
  const auto stamp = [&](Nanoseconds late) {
    const auto all = clock.stamp({end + late, position}, frames);
    lost += all.lostBefore;
    return all.time;
  };
  stamp(8 * Millisecond);
  Nanoseconds farthestOff = 0, longestStep = 0;
  for (int i = 1; i <= 2000; ++i) {
    end += length + 200;  // a clock that is slow by 20 parts in a million
    position += length;
    const Nanoseconds time = stamp((i * 7 % 10) * Millisecond);
    if (i > 1) longestStep = std::max<Nanoseconds>(longestStep, std::llabs(time - previous - length));
    if (i > 500) farthestOff = std::max<Nanoseconds>(farthestOff, std::llabs(time - (end - length)));
    previous = time;
  }
  EXPECT_LT(longestStep, Millisecond / 3);
  EXPECT_LT(farthestOff, Millisecond);
  EXPECT_EQ(lost, 0U);
  end += 4 * length;
  position += 4 * length;
  EXPECT_LT(std::llabs(stamp(0) - previous - 4 * length), Millisecond);
  EXPECT_EQ(lost, 3 * frames);

  // Without a count, a jump of more than a chunk is a gap.
  SoundClock uncounted(48000);
  EXPECT_EQ(uncounted.stamp({Second, -1}, frames).time, Second - length);
  EXPECT_LT(uncounted.stamp({Second + length + 4 * Millisecond, -1}, frames).time - Second, Millisecond);
  EXPECT_EQ(uncounted.stamp({2 * Second, -1}, frames).time, 2 * Second - length);
}

TEST(PictureStreamTest, APictureIsWhereItsBufferSaysAndWithinItsMemory) {
  constexpr std::uint32_t dma = SPA_DATA_DmaBuf, other = SPA_DATA_MemFd;
  std::uint8_t memory[100];
  const struct {
    std::uint32_t type, offset, size;
    std::int32_t stride;
    std::int32_t flags;
    bool hasMemory;
    std::size_t start, length;  ///< of the plane; no length for none
  } cases[] = {{other, 10, 20, 4, 0, true, 10, 20}, {other, 90, 20, 0, 0, true, 90, 10},
               {other, 200, 20, 4, 0, true, 0, 0},  {other, 10, 0, 4, 0, true, 0, 0},
               {dma, 10, 0, 4, 0, true, 10, 90},    {dma, 10, 20, 4, 0, true, 10, 20},
               {other, 10, 20, -4, 0, true, 0, 0},  {other, 10, 20, 4, SPA_CHUNK_FLAG_CORRUPTED, true, 0, 0},
               {other, 10, 20, 4, 0, false, 0, 0}};
  for (const auto& each : cases) {
    SCOPED_TRACE(&each - &cases[0]);
    spa_chunk good{0, 50, 8, 0}, chunk{each.offset, each.size, each.stride, each.flags};
    spa_data parts[] = {{SPA_DATA_MemPtr, 0, -1, 0, 100, memory, &good},
                        {each.type, 0, -1, 0, 100, each.hasMemory ? memory : nullptr, &chunk}};
    const PackedPicture picture =
        PictureStream::pictureIn({0, 2, nullptr, parts}, {Packing::NV12, 64, 48, kCMTimeInvalid, {}});
    ASSERT_EQ(picture.planeCount, each.length == 0 ? 0 : 2);
    EXPECT_TRUE(picture.packing == Packing::NV12 && picture.width == 64 && picture.height == 48);
    if (each.length == 0) continue;
    EXPECT_TRUE(picture.planes[0].bytes == memory && picture.planes[0].size == 50 && picture.planes[0].stride == 8);
    EXPECT_EQ(picture.planes[1].bytes, memory + each.start);
    EXPECT_EQ(picture.planes[1].size, each.length);
    EXPECT_EQ(picture.planes[1].stride, static_cast<std::size_t>(each.stride));
  }
}

TEST(ChunkRingTest, KeepsWholeChunksInOrderAndRefusesWhatThereIsNoRoomFor) {
  constexpr std::uint32_t capacity = 10;
  ChunkRing ring(1, capacity);
  std::uint8_t next = 0, expected = 0;
  const auto write = [&](std::uint32_t frames) {
    std::uint8_t* const to = ring.beginWrite(frames);
    if (!to) return false;
    for (std::uint32_t i = 0; i < frames; ++i) to[i] = next++;
    ring.endWrite(frames, {frames, -1});
    return true;
  };
  const auto read = [&] {
    ChunkRing::Chunk chunk;
    if (!ring.beginRead(chunk)) return 0U;
    for (std::uint32_t i = 0; i < chunk.frames; ++i) EXPECT_EQ(chunk.bytes[i], expected++);
    EXPECT_EQ(chunk.time.end, chunk.frames);
    ring.endRead();
    return chunk.frames;
  };
  EXPECT_EQ(read(), 0U);
  EXPECT_FALSE(write(capacity + 1));
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(write(3));
    ASSERT_TRUE(write(4));
    ASSERT_FALSE(write(4));
    ASSERT_EQ(read(), 3U);
    ASSERT_EQ(read(), 4U);
    ASSERT_EQ(read(), 0U);
  }
}

}  // namespace
}  // namespace hardware::pipewire

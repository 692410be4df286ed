#include "capture/Stamps.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace hardware::pipewire {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;

constexpr std::int64_t LeastTimescale = 90000;
constexpr Nanoseconds LongestTick = NanosecondsPerSecond / LeastTimescale + 1;

CMTime timeOf(Nanoseconds time, std::int32_t timescale) {
  return CMTimeConvertScale(CMTimeMake(time, NanosecondsPerSecond), timescale,
                            kCMTimeRoundingMethod_RoundHalfAwayFromZero);
}

std::int32_t videoTimescale(CMTime frameDuration) {
  const bool isKnown = CMTIME_IS_NUMERIC(frameDuration) && frameDuration.timescale > 0;
  if (!isKnown) return LeastTimescale;
  const std::int64_t own =
      frameDuration.timescale / std::gcd<std::int64_t, std::int64_t>(frameDuration.value, frameDuration.timescale);
  return static_cast<std::int32_t>(own * ((LeastTimescale + own - 1) / own));
}

PictureClock::Stamp PictureClock::stamp(const PictureHeader& header, Nanoseconds arrival, CMTime frameDuration) {
  const bool isOfThisClock = header.time > 0 && std::abs(header.time - arrival) <= NanosecondsPerSecond;
  Stamp stamp;
  stamp.previous = _time;
  stamp.time = std::max(isOfThisClock ? header.time : arrival, _time + LongestTick);

  if (header.number && _number && *header.number > *_number + 1) {
    const double elapsed = static_cast<double>(stamp.time - _time) / NanosecondsPerSecond;
    const double duration = CMTIME_IS_NUMERIC(frameDuration) ? CMTimeGetSeconds(frameDuration) : 0;
    const double most = duration > 0 ? elapsed / duration + 1 : elapsed * 240;
    stamp.lostBefore = std::min(*header.number - *_number - 1, static_cast<std::uint64_t>(std::max(most, 0.0)));
  }
  _number = header.number;
  _time = stamp.time;
  return stamp;
}

SoundClock::Stamp SoundClock::stamp(const ChunkTime& told, std::uint32_t frames) {
  constexpr double farthestOff = 0.2 * NanosecondsPerSecond;  // another driver's clock, or a machine that slept
  const double length = static_cast<double>(frames) * NanosecondsPerSecond / _rate;
  const double toldBegin = static_cast<double>(told.end) - length;
  double begin = toldBegin;
  Stamp stamp;
  if (_length > 0) {
    const bool isCounted = told.position > _position && _position >= 0;
    const double missing = static_cast<double>(told.position - _position) - _length;
    const double expected = _end + (isCounted && missing > _length / 2 ? missing : 0);
    const double off = toldBegin - expected;
    const double largestStep = length / 40;  // so that nobody hears it
    const double step = std::clamp(off < 0 ? off / 4 : off / 256, -largestStep, largestStep);
    const bool isInterrupted = std::abs(off) > farthestOff || (!isCounted && std::abs(off) > length);
    if (!isInterrupted) begin = expected + step;
    stamp.previous = static_cast<Nanoseconds>(_end);
    const double gap = isCounted && !isInterrupted ? missing : begin - _end;  // the count is exact
    if (gap > _length / 2)
      stamp.lostBefore = static_cast<std::uint32_t>(std::llround(std::min(gap * _rate / NanosecondsPerSecond, 1e9)));
  }
  _end = begin + length;
  _length = length;
  _position = told.position;
  stamp.time = std::llround(begin);
  return stamp;
}

}  // namespace hardware::pipewire

#pragma once

// The times of samples, and what was lost between them. All times are the host's monotonic clock. Pure but for what
// they remember of the sample before.

#include <CoreMedia/CMTime.h>
#include <runtime/Scheduler.h>

#include <cstdint>
#include <optional>

namespace hardware::pipewire {

/// A time on the clock, in ticks of a timescale.
CMTime timeOf(runtime::Nanoseconds time, std::int32_t timescale);

/// A timescale in which the duration of a frame is whole, of at least 90,000 ticks a second; 90,000 where it is not
/// known.
std::int32_t videoTimescale(CMTime frameDuration);

/// What the header of a picture says, where it has one.
struct PictureHeader {
  std::int64_t time = -1;               ///< nanoseconds; not positive where none was set
  std::optional<std::uint64_t> number;  ///< of the picture in its stream
};

/// Tells the times of one camera's pictures.
class PictureClock {
 public:
  struct Stamp {
    runtime::Nanoseconds time = 0;      ///< always after the one before, by a tick of any timescale at least
    std::uint64_t lostBefore = 0;       ///< pictures that the numbers say are missing between the one before and this
    runtime::Nanoseconds previous = 0;  ///< the time of the one before, where there was one
  };

  /// A header's time counts where it is of this clock: within a second of arrival. Otherwise it is the time of arrival.
  /// A number counts where it goes up, and by no more than there was time for.
  Stamp stamp(const PictureHeader& header, runtime::Nanoseconds arrival, CMTime frameDuration);

  /// What comes next is another stream.
  void restart() { _number.reset(); }

 private:
  runtime::Nanoseconds _time = 0;
  std::optional<std::uint64_t> _number;
};

/// What PipeWire tells of the time of a chunk of sound.
struct ChunkTime {
  runtime::Nanoseconds end = 0;        ///< when the last frame had been taken, as far as a late cycle can tell
  runtime::Nanoseconds position = -1;  ///< of the graph at that time, by the count of its driver; negative for none
};

/// Tells the times of one microphone's chunks. Where the driver's count says that nothing is missing they follow each
/// other, and draw near to the times that PipeWire tells, of which the earliest are right: cycles are late, never
/// early.
class SoundClock {
 public:
  struct Stamp {
    runtime::Nanoseconds time = 0;      ///< of the first frame
    std::uint32_t lostBefore = 0;       ///< frames that are missing between the chunk before and this one
    runtime::Nanoseconds previous = 0;  ///< when the chunk before ended, where there was one
  };

  explicit SoundClock(std::int32_t rate) : _rate(rate) {}

  /// The times of a chunk of `frames` frames.
  Stamp stamp(const ChunkTime& told, std::uint32_t frames);

 private:
  const std::int32_t _rate;
  // Of the chunk before, in nanoseconds; no length while there is none.
  double _end = 0;
  double _length = 0;
  runtime::Nanoseconds _position = -1;
};

}  // namespace hardware::pipewire

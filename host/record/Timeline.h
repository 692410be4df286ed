#pragma once

// What the time stamps of a recorded picture say: how many frames are missing between two that came, and where a frame
// lies in the recording.

#include <cstdint>

#include "picture/Rational.h"
#include "record/Gaps.h"

namespace brvhost {

/// In which ticks a source counts, and how many of them a frame lasts. Not above 0: not known.
struct FrameTiming {
  std::int32_t ticksPerSecond = 0;
  std::int64_t frameDuration = 0;

  bool isKnown() const { return ticksPerSecond > 0 && frameDuration > 0; }
  Rational frameRate() const { return reduced(ticksPerSecond, frameDuration); }
  friend bool operator==(const FrameTiming&, const FrameTiming&) = default;
};

/// Follows the frames of one recording. Not locked.
class VideoTimeline {
 public:
  /// Where the frame with this stamp would begin, in seconds after the first frame.
  double positionOf(std::int64_t stamp, const FrameTiming& timing) const;

  /// Where the last frame ends, in seconds after the first began.
  double endSeconds() const;

  /// Whether more than half of that frame lies behind `seconds`: it then belongs to the recording no more. The first
  /// frame always does.
  bool liesBehind(double seconds, std::int64_t stamp, const FrameTiming& timing) const;

  /// The next frame. One without known timing is taken for the next after the last. So is one that counts in another
  /// unit and lies before the last or long after it: another clock tells its time.
  void add(std::int64_t stamp, const FrameTiming& timing);

  /// The recording ends at `seconds`, before a frame that lies after them: those which lack until there are missing.
  /// Returns how many.
  std::int64_t endAt(double seconds, std::int64_t stamp, const FrameTiming& timing);

  std::int64_t delivered() const { return _delivered; }
  const Gaps& gaps() const { return _gaps; }
  std::int64_t captured() const { return _delivered + _gaps.missing(); }
  std::int64_t firstStamp() const { return _firstStamp; }
  std::int64_t lastStamp() const { return _lastStamp; }
  /// The timing behind those two stamps, of the first and last frame that had any.
  const FrameTiming& firstTiming() const { return _firstTiming; }
  const FrameTiming& lastTiming() const { return _lastTiming; }

 private:
  std::int64_t lastStampIn(const FrameTiming& timing) const;
  bool continues(std::int64_t stamp, const FrameTiming& timing) const;
  std::int64_t missingBefore(std::int64_t stamp, const FrameTiming& timing) const;

  std::int64_t _delivered = 0;
  Gaps _gaps;
  std::int64_t _unstamped = 0;  ///< frames without known timing since the last one with it
  std::int64_t _firstStamp = 0;
  std::int64_t _lastStamp = 0;
  FrameTiming _firstTiming;
  FrameTiming _lastTiming;
  double _lastPosition = 0;
};

/// Ticks as seconds; 0 for an unknown unit.
inline double inSeconds(std::int64_t stamp, std::int32_t ticksPerSecond) {
  return ticksPerSecond > 0 ? static_cast<double>(stamp) / ticksPerSecond : 0;
}

}  // namespace brvhost

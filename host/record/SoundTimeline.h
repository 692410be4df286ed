#pragma once

// What the time stamps of recorded sound say: in which unit they count, and how much sound is missing between two runs
// that came. Sound that shares its device with a picture is stamped in the source's ticks, while a microphone of its
// own keeps its own, which no entry point tells: so the stamps are held against the sound between them.

#include <array>
#include <cstddef>
#include <cstdint>

#include "record/Gaps.h"

namespace brvhost {

/// Follows the runs of sound of one recording. Not locked; allocates nothing.
class SoundTimeline {
 public:
  /// How far into the recording a run with this stamp would begin, in frames of sound, those that are missing included.
  std::int64_t positionOf(std::int64_t stamp, std::int64_t frames, bool isNewUnit) const;

  /// The next run, `frames` long. `isNewUnit`: from here on the source may count otherwise, so that nothing is known to
  /// be missing in front of it. A stamp of 0 is what sound without a valid time has: it is taken for the next.
  void add(std::int64_t stamp, std::int64_t frames, std::int32_t sampleRate, bool isNewUnit);

  /// The recording ends at this position, before a run that lies after it: what lacks until there is missing. Returns
  /// how many frames that are.
  std::int64_t endAt(std::int64_t position);

  const Gaps& gaps() const { return _gaps; }
  std::int64_t firstStamp() const { return _firstStamp; }
  std::int64_t lastStamp() const { return _lastStamp; }
  std::int64_t lastFrames() const { return _lastFrames; }
  /// How many ticks the stamps move on in a second of sound, gaps left out; 0 where that is not known, as for a single
  /// run.
  double firstTicksPerSecond() const { return _isSecondUnit ? _firstTicksPerSecond : lastTicksPerSecond(); }
  double lastTicksPerSecond() const { return _ticksPerFrame * _sampleRate; }

 private:
  static constexpr std::size_t FirstSteps = 64;  ///< some tenths of a second

  /// From one run to the next.
  struct Step {
    std::int64_t ticks = 0;
    std::int64_t frames = 0;           ///< what the first of the two brought
    std::int64_t longestRun = 0;       ///< of the two
    std::int64_t framesDelivered = 0;  ///< up to the end of the first
    bool isFromTime = true;            ///< whether the first had a time, as far as is known
  };

  Step stepTo(std::int64_t stamp, std::int64_t frames) const;
  std::int64_t missingIn(const Step& step) const;
  void beginUnit();
  void judgeFirstSteps();
  void take(const Step& step);
  void addGap(std::int64_t framesDelivered, std::int64_t missing);

  std::int64_t _delivered = 0;
  std::int64_t _firstStamp = 0;
  std::int64_t _lastStamp = 0;
  std::int64_t _lastFrames = 0;  ///< of the run with that stamp
  std::int64_t _unstamped = 0;   ///< frames that came without a time since
  std::int32_t _sampleRate = 0;
  Gaps _gaps;

  double _ticksPerFrame = 0;  ///< of this unit; 0 until known
  double _ticks = 0;          ///< of its steps that are no gaps
  double _frames = 0;
  std::array<Step, FirstSteps> _firstSteps;
  std::size_t _firstStepCount = 0;
  Gaps _earlierGaps;  ///< in front of this unit

  bool _isSecondUnit = false;  ///< or a later one
  double _firstTicksPerSecond = 0;
};

/// The unit behind measured ticks per second: `sourceTicksPerSecond` where that fits, otherwise the customary rate that
/// does, for stamps may be off and clocks drift; 0 where none does, or nothing was measured.
std::int32_t soundTicksPerSecond(std::int32_t sourceTicksPerSecond, double measured);

}  // namespace brvhost

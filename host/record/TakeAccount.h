#pragma once

// What became of everything that came for a recording.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "record/Gaps.h"

namespace brvhost {

/// Of one medium, in frames of picture or of sound at SoundRate. Each that was delivered is written, not written, or
/// on its way.
struct MediumAccount {
  std::int64_t delivered = 0;   ///< for the recording
  std::int64_t written = 0;     ///< to its files, or handed to what writes them
  std::int64_t notWritten = 0;  ///< because writing did not keep up, or had failed
  std::int64_t outside = 0;     ///< before both media had begun, or after the end
  Gaps gaps;                    ///< what is missing between those that were delivered
  double endSeconds = 0;        ///< where the last one ends in the recording
  double sampleSeconds = 0;     ///< how long the last one, or the last run of sound, lasts
  bool isComplete = false;      ///< wants no more

  /// That much of what was written, or was to be when writing failed, is not in the files.
  void takeBack(std::int64_t lost) {
    lost = std::clamp<std::int64_t>(lost - waiting(), 0, written);
    written -= lost;
    notWritten += lost;
  }
  std::int64_t waiting() const { return delivered - written - notWritten; }
};

struct TakeAccount {
  MediumAccount pictures, sound;
  std::vector<std::string> files;                          ///< in their order
  std::string format;                                      ///< what is in the last one, for people
  std::int64_t bytes = 0;                                  ///< in all of them
  double peak = -std::numeric_limits<double>::infinity();  ///< of the sound, in dB below full scale
  double drift = 0;                    ///< seconds by which the sound was stretched to stay with the pictures
  std::optional<std::string> failure;  ///< why writing ended before the recording did
};

}  // namespace brvhost

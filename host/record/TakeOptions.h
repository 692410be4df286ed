#pragma once

#include <functional>
#include <optional>
#include <string>

#include "record/Encoding.h"

namespace brvhost {

class TakeDiary;

constexpr int SoundRate = 44'100;  ///< frames a second, of two 16-bit channels, in which the module hands sound out

enum class Medium { video, audio };

struct TakeOptions {
  std::string target;  ///< file name, in which % stands for the time of its beginning as strftime has it; URL, or "-"
  Encoding encoding;
  bool hasVideo = false;  ///< of the source
  bool hasAudio = false;
  std::optional<double> seconds = {};         ///< stop there
  std::optional<double> segmentSeconds = {};  ///< begin another file after so long
  std::function<bool()> isInterrupted = [] { return false; };
  TakeDiary* diary = nullptr;  ///< gets what a report tells; lives on

  /// Whether the source has the medium and the file takes it.
  bool records(Medium medium) const {
    return medium == Medium::video ? hasVideo && encoding.video : hasAudio && encoding.audio;
  }
};

}  // namespace brvhost

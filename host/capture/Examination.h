#pragma once

// A source looked at for two seconds, as somebody would who asks why it does not do. Main thread.

#include <brv.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capture/FrameTiming.h"
#include "capture/SignalWatch.h"
#include "capture/Sources.h"

namespace brvhost {

struct Examination {
  struct Picture {
    double firstSeconds = 0;  ///< from the start to the first picture
    int width = 0, height = 0;
    FrameTiming timing;  ///< as the source says
    std::int64_t count = 0;
    std::int64_t missing = 0;  ///< between them
    double rate = 0;           ///< as they came, in frames a second
    double jitter = 0;         ///< standard deviation of the seconds between time stamps
    double age = 0;            ///< of half of the pictures, no more than these seconds when they arrive
    bool isBlack = false, isFrozen = false;
    std::vector<double> intervals = {};  ///< milliseconds between time stamps
    brv::Frame last = {};
  };
  struct Sound {
    double firstSeconds = 0;
    double rate = 0;  ///< frames a second, by the time stamps; nominally 44,100
    Level level;
    bool isSilent = false;
    std::vector<double> peaks = {};  ///< of the runs, in dB
  };

  std::optional<Picture> picture;  ///< none when none came
  std::optional<Sound> sound;
  Drops videoDrops, audioDrops;
  std::string error;  ///< the module's
};

/// Starts the source, and stops it again. Shorter when the user interrupts or the source is unplugged.
Examination examine(const brv::Library& library, const brv::Source& source);

/// What is wrong and what may help, a sentence or two each; empty when all is well.
std::vector<std::string> adviceFor(const brv::Source& source, const Examination& examination);

}  // namespace brvhost

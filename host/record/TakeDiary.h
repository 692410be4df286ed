#pragma once

// What a report tells of a take beyond its account: some pictures, how they and the sound came, what is missing and
// why. As large after ten hours as after ten minutes. Positions are seconds of the recording.

#include <brv.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capture/SignalWatch.h"
#include "record/TakeOptions.h"
#include "record/Timeline.h"

namespace brvhost {

/// What a TakeDiary holds.
struct TakeNotes {
  struct Still {
    double position = 0;
    std::vector<std::uint8_t> jpeg;
  };
  struct Hole {
    Medium medium = Medium::video;
    double position = 0, seconds = 0;
    std::string reason;
  };
  struct Remark {
    double position = 0;
    std::string text;
  };

  std::vector<Still> stills;  ///< the first, and some on the way
  Timeline intervals;         ///< milliseconds from picture to picture
  Timeline levels;            ///< peaks of the sound in dB, no lower than -90
  std::vector<Hole> holes;
  std::size_t furtherHoles = 0;  ///< for which there was no room
  std::vector<Remark> remarks;
};

class TakeDiary {
 public:
  // The writing thread.
  void picture(double position, const brv::Frame& frame);
  void sound(double position, std::span<const std::int16_t> samples);
  void hole(Medium medium, double position, double seconds);

  // The main thread.
  /// Whether there are holes that nothing was said of.
  bool hasUnexplained() const;
  /// Why those are, in each medium.
  void explain(const std::string& pictureReason, const std::string& soundReason);
  /// Something worth knowing that is so from now on.
  void remark(const std::string& text);

  TakeNotes notes() const;

 private:
  bool wants(double position) const;

  mutable std::mutex _mutex;
  TakeNotes _notes;
  std::optional<double> _lastPicture;  ///< the writing thread's
  LevelMeter _meter;                   ///< the same
  double _stillsApart = 1;
  std::size_t _explained = 0;  ///< of the holes
  double _end = 0;             ///< the latest position
};

}  // namespace brvhost

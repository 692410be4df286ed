#pragma once

// One recording of one source: takes the samples on the module's capture threads, keeps account of them, and
// writes them on threads of its own, one a medium.

#include <brv.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "record/AudioTrack.h"
#include "record/VideoTrack.h"

namespace brvhost {

class Recorder {
 public:
  struct Media {
    bool video = false;
    bool audio = false;
  };

  /// Creates BASE.y4m and BASE.wav as `media` asks; the other of the two must not exist. `seconds` limits each medium.
  /// `timing` tells how the source counts; it is called on the video capture thread. Throws Failure.
  Recorder(const std::string& base, Media media, std::optional<double> seconds, std::function<FrameTiming()> timing);

  /// What takes the samples. They must have stopped before the Recorder goes.
  brv::Handlers handlers();

  /// Writes out what is waiting and completes the files. Samples must have stopped.
  void finish() noexcept;

  /// Null where the source has no such medium.
  const VideoTrack* video() const { return _video.get(); }
  const AudioTrack* audio() const { return _audio.get(); }

  /// Whether every medium is at its limit or has ended.
  bool isComplete() const;
  /// The first thing that went wrong in writing, for people.
  std::optional<std::string> failure() const;

 private:
  std::unique_ptr<VideoTrack> _video;
  std::unique_ptr<AudioTrack> _audio;
};

}  // namespace brvhost

#pragma once

// The sound of a recording: runs of samples in on the capture thread, a WAV file out on a writer thread.

#include <brv.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "record/SoundTimeline.h"
#include "record/Timeline.h"
#include "record/Track.h"
#include "record/WAVWriter.h"

namespace brvhost {

struct AudioStatistics : TrackStatistics {
  SoundTimeline timeline;  ///< of the sound that was delivered
  PCMFormat format;        ///< of the first run

  /// Where the last run ends, in seconds after the first began.
  double endSeconds() const { return inSeconds(frames + timeline.gaps().missing(), format.sampleRate); }
  /// How long that run lasts.
  double sampleSeconds() const { return inSeconds(timeline.lastFrames(), format.sampleRate); }
};

/// Samples on their way to the writer.
struct AudioRun {
  PCMFormat format;
  std::vector<std::uint8_t> samples;

  void letGo() {}  // the memory is used again
};

class AudioTrack final : public Track<AudioStatistics, AudioRun, WAVWriter> {
 public:
  /// Creates the file, throws Failure. `seconds` is the length to stop at, to the frame; what is
  /// missing counts, and a first frame is always taken.
  AudioTrack(const std::string& path, std::optional<double> seconds);
  ~AudioTrack();

  /// The capture thread's side: copies the samples and hands them on; waits for a moment when the writer's queue is
  /// full.
  void soundArrived(const brv::Sound& sound) noexcept;

 private:
  std::size_t accept(const BRV_AudioBuffer& record, const PCMFormat& format);
  bool write(const AudioRun& run) override;
};

}  // namespace brvhost

#pragma once

// The lines of a rig file that describe formats, sources and faults; hardware/README.md gives their grammar.

#include <string>
#include <string_view>

#include "Result.h"
#include "Rig.h"

namespace hardware::simulated {

struct VideoFormatLine {
  VideoFormat format;
  PictureBehaviour picture;
  bool isActive = false;
};

struct AudioFormatLine {
  AudioFormat format;
  bool isActive = false;
};

enum class FaultyMedium { pictures, sound };

/// "1440x1080 mp2t, presentation 1920x1080, rates 29.97, name "HDV", active".
Result<VideoFormatLine> parseVideoFormat(std::string_view text);

/// "48000 Hz, 32-bit float, stereo, planar".
Result<AudioFormatLine> parseAudioFormat(std::string_view text);

/// "test picture" or "media clip.y4m, once". Relative paths are taken from `folder`.
Result<PictureSource> parsePictureSource(std::string_view text, const std::string& folder);

/// "tone 440 -20" or "media clip.wav".
Result<SoundSource> parseSoundSource(std::string_view text, const std::string& folder);

/// "lost frame, every 10", "timescale 600, at 2.5 s", "invalid time, at frame 12".
Result<Fault> parseFault(std::string_view text, FaultyMedium medium);

/// "Another program has it., at 5 s, for 2 s".
Result<RunningFailure> parseRunningFailure(std::string_view text);

/// "0x0080880303480cd1, mpeg".
Result<FireWireUnit> parseFireWireUnit(std::string_view text);

}  // namespace hardware::simulated

#pragma once

// A recording in words: while it runs, at its end, and what is wrong with it.

#include <optional>
#include <string>

#include "capture/Sources.h"
#include "record/Recorder.h"

namespace brvhost {

/// One line: how long, how many frames, how much sound.
std::string progressText(double elapsedSeconds, const Recorder& recorder);

/// The account of a recording, finished or not, several lines. `ticksPerSecond` is what the source counts in.
std::string reportText(const Recorder& recorder, std::int32_t ticksPerSecond);

/// Why samples of a medium were dropped, of which the counts were these before the recording and after: a line, or
/// nothing where none was.
std::string dropsText(const char* medium, const Drops& before, const Drops& after);

/// Why a finished recording is not whole; none when it is. `sourceError` is what the source says of a medium that never
/// came, empty for nothing.
std::optional<std::string> shortfallOf(const Recorder& recorder, const std::string& sourceError);

}  // namespace brvhost

#pragma once

// A look at what a source delivers: starts it, lets it settle, and keeps one frame.

#include <brv.hpp>

#include "capture/FrameTiming.h"

namespace brvhost {

/// Starts `source` and returns its `frameCount`th frame, or the newest one half a second after the first; none when no
/// frame comes within `timeoutSeconds`, the user interrupts or the source is unplugged. Main thread; the source is
/// stopped again.
brv::Frame grabFrame(const brv::Library& library, const brv::Source& source, int frameCount, double timeoutSeconds);

/// Starts `source` and returns how it counts time as soon as its samples tell; unknown when none comes within
/// `timeoutSeconds`, the user interrupts or the source is unplugged. Main thread; the source is stopped again.
FrameTiming awaitTiming(const brv::Library& library, const brv::Source& source, double timeoutSeconds);

}  // namespace brvhost

#pragma once

// A look at what a source delivers: starts it, lets it settle, and keeps one frame.

#include <mutex>
#include <optional>

#include "PixelBuffer.h"
#include "Rational.h"
#include "Session.h"

namespace brvhost {

struct Frame {
  PixelBuffer picture;
  std::int32_t displayWidth = 0;
  std::int32_t displayHeight = 0;
  float pixelAspectRatio = 1;
  FrameTiming timing;
};

/// Starts `source` and returns its `frameCount`th frame, or the newest one half a second after the first; none when no
/// frame comes within `timeoutSeconds`, the user interrupts or the source is unplugged. Main thread; the source is
/// stopped again.
std::optional<Frame> grabFrame(Session& session, const Source& source, int frameCount, double timeoutSeconds);

/// Starts `source` and returns how it counts time as soon as its samples tell; unknown when none comes within
/// `timeoutSeconds`, the user interrupts or the source is unplugged. Main thread; the source is stopped again.
FrameTiming awaitTiming(Session& session, const Source& source, double timeoutSeconds);

}  // namespace brvhost

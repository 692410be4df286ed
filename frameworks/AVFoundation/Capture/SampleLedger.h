#pragma once

// The account of every sample in the process: what the outputs that are gone counted, and what devices captured while
// nobody wanted it. Private to AVFoundation; for whoever checks that nothing gets lost. Any thread.

#include <AVFoundation/AVCaptureOutput.h>

#include <cstdint>

struct SampleLedger {
  /// The sums over all outputs of the medium that have gone. They gave all of their samples an end: pending is 0.
  AVCaptureOutputStatistics ended;
  /// Samples that a running device captured in a medium to which no output was connected: those of a camcorder's
  /// picture, say, while only its sound is wanted. They are in nobody's statistics.
  std::uint64_t unclaimed = 0;

  static SampleLedger of(AVMediaType mediaType);

  static void noteUnclaimed(AVMediaType mediaType) noexcept;
  static void noteEnded(AVMediaType mediaType, const AVCaptureOutputStatistics& statistics) noexcept;
};

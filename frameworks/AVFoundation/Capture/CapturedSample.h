#pragma once

// What an output made, on the device's lane, of a picture or a run of sound. Private to AVFoundation.

#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMSampleBuffer.h>

#include <cstdint>

/// How a captured sample ends; see AVCaptureOutputStatistics.
enum class SampleFate { delivered, late, noBuffer, lostByDevice, notConverted, stopped };

struct CapturedSample {
  SampleFate fate = SampleFate::delivered;

  /// What the delegate receives: the sample, or in the report of a dropped picture one that has its time alone. Null
  /// in a report for which memory is short; for dropped sound; and for sound that has not filled a buffer yet, which
  /// belongs to the next one.
  CFRef<CMSampleBufferRef> buffer;

  // Of sound, in frames
  std::uint32_t framesIn = 0;   ///< as it came from the device
  std::uint32_t framesOut = 0;  ///< in `buffer`
  double owed = 0;              ///< what the conversion owes from here on
  double forgone = 0;           ///< what was owed of streams that ended
};

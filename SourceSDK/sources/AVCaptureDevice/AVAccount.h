#pragma once

// What became of the samples of one medium of a source: the counts of its output, less what the source's delegate was
// given and did not hand on to the host.

#include <AVFoundation/AVCaptureOutput.h>

#include <atomic>
#include <cstdint>

namespace AV {

/// Every captured sample ends in exactly one of the other counts.
struct Account {
  AVCaptureOutputStatistics counts;  ///< `delivered` is what the host's callback received
  std::uint64_t invalidTime = 0;     ///< sound whose time stamps had no timescale yet
  std::uint64_t unheard = 0;         ///< the host had no callback for the medium

  Account& operator+=(const Account& other);
};

/// What a delegate did not hand on. Counted on its queue, read by any thread.
class Withheld {
 public:
  enum class Reason { noPicture, invalidTime, notConverted, unheard };

  /// The sample that `output` is giving to the delegate; of sound, of so many frames.
  void note(Reason reason, const AVCaptureOutput* output, std::uint64_t frames = 0) noexcept;

  /// Takes it off the counts of the output, which are read after it: so what is delivered is never negative.
  Account accountOf(const AVCaptureOutput& output) const;

 private:
  std::atomic<std::uint64_t> _noPicture{0}, _invalidTime{0}, _notConverted{0}, _unheard{0}, _frames{0};
};

}  // namespace AV

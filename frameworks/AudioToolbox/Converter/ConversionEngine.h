#pragma once

// The ways from one format to another: a plain copy, a conversion sample by sample, or one through a change of rate.

#include <AudioToolbox/Converter/ChannelMixer.h>

#include <memory>

namespace AudioConversion {

/// Input frames that wait to be used. Consuming them moves the planes on.
struct PendingInput {
  InputPlanes planes;
  size_t frames = 0;

  void consume(size_t count) noexcept {
    planes = planes.advancedBy(count);
    frames -= count;
  }
};

/// One thread at a time; allocates only when it is made.
class ConversionEngine {
 public:
  virtual ~ConversionEngine() = default;

  /// Produces up to `frames` frames, and fewer when `input` is not enough for more: it has then been used up. Returns
  /// how many.
  virtual size_t produce(PendingInput& input, const OutputPlanes& out, size_t frames) = 0;

  /// How many more input frames are needed to produce `frames` frames; at least 1.
  virtual size_t inputWanted(size_t frames) const = 0;

  /// No more input will come; what is held can be produced.
  virtual void finish() = 0;

  /// Begins an unrelated stream.
  virtual void reset() = 0;
};

/// Throws std::bad_alloc.
std::unique_ptr<ConversionEngine> makeEngine(const PCMFormat& source, const PCMFormat& destination,
                                             AudioChannelLayoutTag inputLayout);

}  // namespace AudioConversion

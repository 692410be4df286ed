#pragma once

// Planar working values into samples of any PCM format. One thread at a time; allocates nothing.

#include <AudioToolbox/Converter/PCMKernels.h>
#include <AudioToolbox/Converter/SampleCodec.h>

namespace AudioConversion {

/// `Work` as in SampleReader. Integers are rounded to nearest, ties to even, and held at the format's limits; NaN
/// becomes 0.
template <typename Work>
class SampleWriter {
 public:
  explicit SampleWriter(const PCMFormat& format, InstructionSet set = bestInstructionSet());

  /// Writes all channels of the format, each from its plane of `in`; planes may be the same.
  void write(const Work* const* in, size_t frames, const OutputPlanes& out) const;

 private:
  using WriteStrided = void (*)(const IntegerPlace&, const Work* in, size_t frames, std::byte* out, size_t stride);
  static WriteStrided writeStridedFor(const SampleEncoding& sample) noexcept;

  PCMFormat _format;
  IntegerPlace _place;
  WriteStrided _writeStrided;
  typename PCMKernels<Work>::Entry _kernels;
};

}  // namespace AudioConversion

#pragma once

// Samples of any PCM format into planar working values. One thread at a time; allocates nothing.

#include <AudioToolbox/Converter/PCMKernels.h>
#include <AudioToolbox/Converter/SampleCodec.h>

namespace AudioConversion {

/// `Work` is int32_t (left-justified integers, integer formats only), float or double (full scale at 1).
template <typename Work>
class SampleReader {
 public:
  explicit SampleReader(const PCMFormat& format, InstructionSet set = bestInstructionSet());

  /// Reads the first `channels` channels, each into its own plane of `out`.
  void read(const InputPlanes& in, size_t frames, unsigned channels, Work* const* out) const;

  void readChannel(const InputPlanes& in, size_t frames, unsigned channel, Work* out) const;

 private:
  using ReadStrided = void (*)(const IntegerPlace&, const std::byte* in, size_t stride, size_t frames, Work* out);
  static ReadStrided readStridedFor(const SampleEncoding& sample) noexcept;

  PCMFormat _format;
  IntegerPlace _place;
  ReadStrided _readStrided;
  typename PCMKernels<Work>::Entry _kernels;
};

}  // namespace AudioConversion

#pragma once

// Fast ways through memory for the sample formats that live video meets by the million: packed little-endian integers
// of 16, 24 and 32 bits and 32-bit floats, as one run of samples or as interleaved stereo. The results are those of
// SampleCodec, bit for bit.

#include <AudioToolbox/Converter/InstructionSet.h>
#include <AudioToolbox/Converter/PCMFormat.h>

#include <array>
#include <cstdint>
#include <optional>

namespace AudioConversion {

enum class CommonFormat : unsigned { Int16, Int24, Int32, Float32 };
inline constexpr unsigned kCommonFormats = 4;

std::optional<CommonFormat> commonFormat(const SampleEncoding& sample) noexcept;

/// `Work` is int32_t (left-justified) or float (full scale at 1). An entry is null where no fast way exists.
template <typename Work>
struct PCMKernels {
  using ReadRun = void (*)(const std::byte* in, size_t samples, Work* out);
  using ReadStereo = void (*)(const std::byte* in, size_t frames, Work* left, Work* right);
  using WriteRun = void (*)(const Work* in, size_t samples, std::byte* out);
  using WriteStereo = void (*)(const Work* left, const Work* right, size_t frames, std::byte* out);

  struct Entry {
    ReadRun readRun = nullptr;
    ReadStereo readStereo = nullptr;
    WriteRun writeRun = nullptr;
    WriteStereo writeStereo = nullptr;
  };
  std::array<Entry, kCommonFormats> formats{};  ///< by CommonFormat
};

/// The fast ways of an instruction set for a sample format: all null for 64-bit work and for formats that are not
/// common.
template <typename Work>
typename PCMKernels<Work>::Entry pcmKernels(InstructionSet set, const SampleEncoding& sample) noexcept;

/// Null where bytes are in another order.
const PCMKernels<float>* portableFloatKernels() noexcept;

/// Null on processors that are no x86-64. Call only what bestInstructionSet allows.
const PCMKernels<float>* avx2FloatKernels() noexcept;
const PCMKernels<int32_t>* avx2IntegerKernels() noexcept;

}  // namespace AudioConversion

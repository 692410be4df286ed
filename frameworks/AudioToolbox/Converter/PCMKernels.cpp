#include <AudioToolbox/Converter/PCMKernels.h>

#include <type_traits>

namespace AudioConversion {

std::optional<CommonFormat> commonFormat(const SampleEncoding& sample) noexcept {
  const bool packed = sample.containerBytes * 8 == sample.bits;
  if (!packed || sample.bigEndian) return std::nullopt;
  if (sample.isFloat()) return sample.bits == 32 ? std::optional(CommonFormat::Float32) : std::nullopt;
  switch (sample.bits) {
    case 16:
      return CommonFormat::Int16;
    case 24:
      return CommonFormat::Int24;
    case 32:
      return CommonFormat::Int32;
    default:
      return std::nullopt;
  }
}

template <typename Work>
typename PCMKernels<Work>::Entry pcmKernels(InstructionSet set, const SampleEncoding& sample) noexcept {
  const PCMKernels<Work>* kernels = nullptr;
  const bool hasAVX2 = set == InstructionSet::AVX2;
  if constexpr (std::is_same_v<Work, float>) kernels = hasAVX2 ? avx2FloatKernels() : portableFloatKernels();
  if constexpr (std::is_same_v<Work, int32_t>) kernels = hasAVX2 ? avx2IntegerKernels() : nullptr;
  const std::optional<CommonFormat> format = commonFormat(sample);
  if (!kernels || !format) return {};
  return kernels->formats[static_cast<unsigned>(*format)];
}

template PCMKernels<int32_t>::Entry pcmKernels<int32_t>(InstructionSet, const SampleEncoding&) noexcept;
template PCMKernels<float>::Entry pcmKernels<float>(InstructionSet, const SampleEncoding&) noexcept;
template PCMKernels<double>::Entry pcmKernels<double>(InstructionSet, const SampleEncoding&) noexcept;

}  // namespace AudioConversion

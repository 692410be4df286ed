#include <AudioToolbox/InstructionSet.h>

namespace AudioConversion {

InstructionSet bestInstructionSet() noexcept {
#if defined(__x86_64__)
  static const bool hasAVX2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  return hasAVX2 ? InstructionSet::AVX2 : InstructionSet::Portable;
#else
  return InstructionSet::Portable;
#endif
}

}  // namespace AudioConversion

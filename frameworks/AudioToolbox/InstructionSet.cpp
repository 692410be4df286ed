#include <AudioToolbox/InstructionSet.h>

#include <atomic>

namespace AudioConversion {

namespace {

std::atomic<bool> isPortableWanted{false};

bool hasAVX2() noexcept {
#if defined(__x86_64__)
  static const bool isThere = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  return isThere;
#else
  return false;
#endif
}

}  // namespace

InstructionSet bestInstructionSet() noexcept {
  return hasAVX2() && !isPortableWanted ? InstructionSet::AVX2 : InstructionSet::Portable;
}

void usePortableInstructions() noexcept {
  isPortableWanted = true;
}

}  // namespace AudioConversion

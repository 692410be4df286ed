#include <AudioToolbox/Converter/InstructionSet.h>

#include <atomic>

namespace AudioConversion {

namespace {

std::atomic<InstructionSet> limit{InstructionSet::AVX2};

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
  return hasAVX2() ? limit.load() : InstructionSet::Portable;
}

void limitInstructions(InstructionSet most) noexcept {
  limit = most;
}

}  // namespace AudioConversion

#pragma once

// Which kernels to use. One binary holds both; the processor decides once.

namespace AudioConversion {

enum class InstructionSet { Portable, AVX2 };

/// The best that this processor runs, within the limit below. Any thread.
InstructionSet bestInstructionSet() noexcept;

/// Uses nothing above `most` in whatever is made from now on: for measurements and tests.
void limitInstructions(InstructionSet most) noexcept;

}  // namespace AudioConversion

#pragma once

// Which kernels to use. One binary holds both; the processor decides once.

namespace AudioConversion {

enum class InstructionSet { Portable, AVX2 };

/// The best that this processor runs, or less after the call below. Any thread.
InstructionSet bestInstructionSet() noexcept;

/// Does without the others in whatever is made from now on: for measurements and tests.
void usePortableInstructions() noexcept;

}  // namespace AudioConversion

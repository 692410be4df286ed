#pragma once

// Which kernels to use. One binary holds both; the processor decides once.

namespace AudioConversion {

enum class InstructionSet { Portable, AVX2 };

/// The best that this processor runs. Any thread.
InstructionSet bestInstructionSet() noexcept;

}  // namespace AudioConversion

#pragma once

#include <cstdint>

/// False in a build whose sanitizer has an allocator of its own, which must stay in place.
extern const bool AllocationsAreCounted;

/// How often this thread took memory from the C library so far: in the frameworks too, and through `operator new`.
std::int64_t allocationCount() noexcept;

#pragma once

#include <cstdint>

/// False in a build whose sanitizer does not share `operator new` with others.
extern const bool AllocationsAreCounted;

/// How often `operator new` was called in this process so far, the frameworks' calls included.
std::int64_t allocationCount() noexcept;

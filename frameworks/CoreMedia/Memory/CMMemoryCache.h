#pragma once

// Memory for the small objects and blocks that come and go with every sample. What is freed waits on a bounded
// shelf for the next sample of its size, so that a running capture does not allocate. Any thread; no lock.

#include <cstddef>

namespace CMMemoryCache {

/// At least `size` bytes on a 16-byte boundary, contents undefined; null when there is no memory. Goes back through
/// `free` with the same size.
void* allocate(std::size_t size) noexcept;

/// Null is allowed.
void free(void* memory, std::size_t size) noexcept;

}  // namespace CMMemoryCache

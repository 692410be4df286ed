#include "AllocationCount.h"

#include <cstddef>

// A file of its own, so that no caller sees through the definitions.

#if defined(__has_feature)
#define HAS_FEATURE(name) __has_feature(name)
#else
#define HAS_FEATURE(name) 0
#endif

namespace {
thread_local std::int64_t allocations = 0;
}

std::int64_t allocationCount() noexcept {
  return allocations;
}

#if !defined(__GLIBC__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    HAS_FEATURE(address_sanitizer) || HAS_FEATURE(thread_sanitizer)

const bool AllocationsAreCounted = false;

#else

const bool AllocationsAreCounted = true;

// The program's own definitions take precedence over the C library's in every library that it loads; operator new
// ends in malloc.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  ++allocations;
  return __libc_memalign(alignment, size);
}
}

#endif

#include "AllocationHook.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

// A file of its own, so that no caller sees through the definitions. They take precedence over the C library's in every
// library that the program loads, and operator new ends in malloc.

namespace {
constinit std::atomic<std::int64_t> allocations{0};

void count() noexcept {
  allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

std::int64_t bench::allocationCount() noexcept {
  return allocations.load(std::memory_order_relaxed);
}

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t items, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  count();
  return __libc_malloc(size);
}

void* calloc(std::size_t items, std::size_t size) {
  count();
  return __libc_calloc(items, size);
}

void* realloc(void* memory, std::size_t size) {
  count();
  return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  count();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  count();
  *memory = __libc_memalign(alignment, size);
  return *memory ? 0 : ENOMEM;
}
}

#include "AllocationCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

// A file of its own, so that no caller sees through the operators to malloc and free.

#if defined(__clang__)
#if __has_feature(thread_sanitizer)
#define OPERATOR_NEW_IS_TAKEN
#endif
#endif

namespace {
constinit std::atomic<std::int64_t> allocations{0};
}

std::int64_t allocationCount() noexcept {
  return allocations;
}

#if defined(OPERATOR_NEW_IS_TAKEN)

const bool AllocationsAreCounted = false;

#else

const bool AllocationsAreCounted = true;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size);
}
void* operator new(std::size_t size) {
  if (void* memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

#endif

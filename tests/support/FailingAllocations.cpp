#include "support/FailingAllocations.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__has_feature)
#define HAS_FEATURE(name) __has_feature(name)
#else
#define HAS_FEATURE(name) 0
#endif

namespace test {
namespace {

thread_local bool isCounting = false;
thread_local std::int64_t left = 0;  ///< until the one that fails
thread_local std::int64_t counted = 0;

bool fails() {
  if (!isCounting) return false;
  ++counted;
  return left-- == 0;
}

}  // namespace

FailingAllocations::FailingAllocations(std::int64_t allowed) {
  left = allowed;
  counted = 0;
  isCounting = true;
}

FailingAllocations::~FailingAllocations() {
  isCounting = false;
}

std::int64_t FailingAllocations::count() {
  return counted;
}

}  // namespace test

#if !defined(__GLIBC__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    HAS_FEATURE(address_sanitizer) || HAS_FEATURE(thread_sanitizer)

void* operator new(std::size_t size) {
  void* const memory = test::fails() ? nullptr : std::malloc(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return test::fails() ? nullptr : std::malloc(size);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#else

// The program's own definitions take precedence over the C library's in every library that it loads; operator new
// ends in malloc.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  return test::fails() ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  return test::fails() ? nullptr : __libc_calloc(count, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return test::fails() ? nullptr : __libc_memalign(alignment, size);
}
}

#endif

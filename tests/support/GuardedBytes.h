#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/// Memory that ends where pages begin that nobody may touch: what libraries do that are built without sanitizers is
/// stopped by these alone.
class GuardedBytes {
 public:
  explicit GuardedBytes(std::size_t count) : size(count) {
    if (_memory == MAP_FAILED || mprotect(_memory, _accessible, PROT_READ | PROT_WRITE) != 0) std::abort();
  }
  ~GuardedBytes() { munmap(_memory, _accessible + Guard); }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  const std::size_t size;

 private:
  static constexpr std::size_t Guard = 1 << 16;  // at least a page on every machine
  const std::size_t _accessible = (size / Guard + 1) * Guard;
  void* const _memory = mmap(nullptr, _accessible + Guard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);

 public:
  std::uint8_t* const data = static_cast<std::uint8_t*>(_memory) + _accessible - size;
};

#pragma once

#include <cstdint>

namespace test {

/// Memory that runs out: while one exists, allocations of its thread fail, once or from a certain one on. Memory comes
/// from the C library's functions, and with a sanitizer, whose allocator must stay in place, from operator new alone.
class FailingAllocations {
 public:
  enum class Extent { One, AllFromThere };

  /// The first to fail is the one after `allowed` others.
  FailingAllocations(std::int64_t allowed, Extent extent);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  /// How many allocations there were since the construction, those that failed included.
  static std::int64_t count();
};

}  // namespace test

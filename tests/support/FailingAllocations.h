#pragma once

#include <cstdint>

namespace test {

/// Memory that runs out: while one exists, a certain allocation of its thread fails. Memory comes from the C library's
/// functions, and with a sanitizer, whose allocator must stay in place, from operator new alone.
class FailingAllocations {
 public:
  /// The one after `allowed` others fails.
  explicit FailingAllocations(std::int64_t allowed);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  /// How many allocations there were since the construction, those that failed included.
  static std::int64_t count();
};

}  // namespace test

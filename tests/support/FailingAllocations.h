#pragma once

#include <cstdint>
#include <limits>

namespace test {

/// Counts a thread's allocations while it exists, and lets memory run out: a certain one of them fails. Memory comes
/// from the C library's functions, and with a sanitizer, whose allocator must stay in place, from operator new alone.
class FailingAllocations {
 public:
  /// The one after `allowed` others fails.
  explicit FailingAllocations(std::int64_t allowed = std::numeric_limits<std::int64_t>::max());
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  /// How many allocations there were since the construction, those that failed included.
  static std::int64_t count();
};

}  // namespace test

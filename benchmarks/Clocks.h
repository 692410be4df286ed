#pragma once

#include <time.h>

#include <cstdint>

namespace bench {

inline std::int64_t nanoseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// Time that passes.
inline std::int64_t now() {
  return nanoseconds(CLOCK_MONOTONIC);
}

/// Time that this process has spent computing, on all of its threads.
inline std::int64_t processTime() {
  return nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
}

}  // namespace bench

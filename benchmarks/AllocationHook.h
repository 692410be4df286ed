#pragma once

#include <cstdint>

namespace bench {

/// How often the process took memory from the C library so far, on whichever thread.
std::int64_t allocationCount() noexcept;

}  // namespace bench

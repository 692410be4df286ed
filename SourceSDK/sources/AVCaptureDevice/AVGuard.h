#pragma once

// The border that no exception crosses: out of memory or of threads, what was asked for does not happen.

#include <utility>

namespace AV {

/// Runs `work`; what it throws ends here.
template <typename Work>
void guarded(Work&& work) noexcept {
  try {
    std::forward<Work>(work)();
  } catch (...) {
  }
}

/// The result of `work`, or `neutral` when it throws.
template <typename Result, typename Work>
Result guarded(Result neutral, Work&& work) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (...) {
    return neutral;
  }
}

}  // namespace AV

#pragma once

#include <cstdio>
#include <cstdlib>

namespace test {

/// Ends the program, and with it the run, where something does not hold: the explorer says how to come here again.
inline void require(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", rule);
  std::abort();
}

}  // namespace test

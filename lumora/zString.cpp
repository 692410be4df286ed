#include <lumora/zString.h>

#include <cstring>

bool zString::string_equal(const char* left, const char* right) noexcept {
  if (!left || !right) return left == right;
  return std::strcmp(left, right) == 0;
}

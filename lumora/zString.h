#pragma once

// Operations on C strings that tolerate null.

class zString {
 public:
  /// Whether both texts hold the same bytes: letter case counts, and null equals only null.
  static bool string_equal(const char* left, const char* right) noexcept;
};

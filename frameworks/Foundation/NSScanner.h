#pragma once

// Reading numbers out of text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

class NSScanner {
 public:
  // scannerWithString:
  static NSScanner scannerWithString(std::string string) { return NSScanner(std::move(string)); }

  /// The next scan begins after this many characters of the text, which is UTF-8, or at its end.
  void setScanLocation(std::size_t characters) noexcept;

  // scanHexLongLong:
  /// Skips white space, accepts an optional 0x or 0X, and reads hexadecimal digits as far as they go. On
  /// success stores the number (the largest 64-bit value when it does not fit) and moves past it. When
  /// no number follows, returns false and changes neither `value` nor the position. `value` may be null.
  bool scanHexLongLong(std::uint64_t* value);

 private:
  explicit NSScanner(std::string string) : _string(std::move(string)) {}

  std::string _string;
  std::size_t _location = 0;  ///< in bytes
};

#pragma once

// What the library needs to know of UTF-8: reading one code point of several bytes strictly, and finding the end of the
// last whole one. Internal to the library.

#include <cstddef>
#include <string_view>

namespace lumora {

/// One code point of several bytes, read from the front of a text that is not empty; `length` is 0 where the text
/// begins with something else, or is not well-formed there (overlong forms, surrogates and values above U+10FFFF
/// included).
struct CodePoint {
  char32_t value = 0;
  std::size_t length = 0;
};

CodePoint decodeUtf8(std::string_view text) noexcept;

/// `text` without the beginning of a code point at its end, as left when a longer text is cut by bytes.
/// Text that was never UTF-8 loses at most 3 bytes.
std::string_view withoutSplitTail(std::string_view text) noexcept;

}  // namespace lumora

#include <lumora/Utf8.h>

#include <algorithm>

namespace lumora {
namespace {

constexpr std::size_t LongestSequence = 4;

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/// Bytes of the sequence that `lead` announces; 0 for a byte that begins none of several. 0xC0 and 0xC1 could only
/// begin overlong forms, 0xF5 and above only values beyond U+10FFFF.
std::size_t announcedLength(unsigned char lead) {
  if (lead < 0xC2) return 0;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  return lead < 0xF5 ? 4 : 0;
}

bool isScalarOfLength(char32_t value, std::size_t length) {
  switch (length) {
    case 3:
      return value >= 0x800 && (value < 0xD800 || value > 0xDFFF);
    case 4:
      return value >= 0x10000 && value <= 0x10FFFF;
    default:
      return true;
  }
}

}  // namespace

CodePoint decodeUtf8(std::string_view text) noexcept {
  const auto lead = static_cast<unsigned char>(text.front());
  const std::size_t length = announcedLength(lead);
  if (length > text.size()) return {};

  char32_t value = lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (!isContinuation(byte)) return {};
    value = (value << 6) | (byte & 0x3Fu);
  }
  return isScalarOfLength(value, length) ? CodePoint{value, length} : CodePoint{};
}

std::string_view withoutSplitTail(std::string_view text) noexcept {
  const std::size_t reach = std::min(text.size(), LongestSequence - 1);
  for (std::size_t tail = 1; tail <= reach; ++tail) {
    const auto byte = static_cast<unsigned char>(text[text.size() - tail]);
    if (isContinuation(byte)) continue;
    if (announcedLength(byte) > tail) text.remove_suffix(tail);
    break;
  }
  return text;
}

}  // namespace lumora

#include <Foundation/NSScanner.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>

namespace {

constexpr std::string_view WhiteSpace = " \t\n\v\f\r";

std::optional<unsigned> hexDigitAt(std::string_view text, std::size_t index) noexcept {
  if (index >= text.size()) return std::nullopt;
  const char character = text[index];
  if (character >= '0' && character <= '9') return static_cast<unsigned>(character - '0');
  if (character >= 'a' && character <= 'f') return static_cast<unsigned>(character - 'a' + 10);
  if (character >= 'A' && character <= 'F') return static_cast<unsigned>(character - 'A' + 10);
  return std::nullopt;
}

/// A prefix without a digit after it is none: the zero is then the number itself.
bool hasHexPrefixAt(std::string_view text, std::size_t index) noexcept {
  const std::string_view prefix = text.substr(index, 2);
  return (prefix == "0x" || prefix == "0X") && hexDigitAt(text, index + 2);
}

}  // namespace

void NSScanner::setScanLocation(std::size_t characters) noexcept {
  const auto beginsCharacter = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; };
  const auto begin = _string.begin(), end = _string.end();
  auto place = begin;
  for (; characters > 0 && place != end; --characters) place = std::find_if(place + 1, end, beginsCharacter);
  _location = static_cast<std::size_t>(place - begin);
}

bool NSScanner::scanHexLongLong(std::uint64_t* value) {
  const std::string_view text = _string;
  std::size_t index = text.find_first_not_of(WhiteSpace, _location);
  if (index == std::string_view::npos) return false;
  if (hasHexPrefixAt(text, index)) index += 2;
  if (!hexDigitAt(text, index)) return false;

  constexpr std::uint64_t Largest = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t number = 0;
  for (; const auto digit = hexDigitAt(text, index); ++index) {
    number = number > Largest >> 4 ? Largest : number << 4 | *digit;
  }
  _location = index;
  if (value) *value = number;
  return true;
}

#include <CoreFoundation/CFURL.h>

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <CoreFoundation/Objects/OpaqueCFString.h>
#include <arpa/inet.h>
#include <runtime/NSObject.h>

#include <charconv>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

using Text = CFRef<CFStringRef>;

struct Parts {
  Text scheme, userName, password, host, strictPath;
  SInt32 port = -1;
  bool isDecomposable = false;
  bool isAbsolute = false;
};

bool isLetter(char character) noexcept {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool isDigit(char character) noexcept {
  return character >= '0' && character <= '9';
}

bool isHexDigit(char character) noexcept {
  return isDigit(character) || (character >= 'a' && character <= 'f') || (character >= 'A' && character <= 'F');
}

bool isOneOf(char character, std::string_view set) noexcept {
  return set.find(character) != std::string_view::npos;
}

/// Only characters that stand for themselves in every part, escapes, and those of `others`.
bool consistsOfCharactersAnd(std::string_view others, std::string_view text) noexcept {
  for (std::size_t index = 0; index < text.size(); ++index) {
    const char character = text[index];
    if (character == '%') {
      if (text.size() - index < 3 || !isHexDigit(text[index + 1]) || !isHexDigit(text[index + 2])) return false;
      index += 2;
    } else if (!isLetter(character) && !isDigit(character) && !isOneOf(character, "-._~!$&'()*+,;=") &&
               !isOneOf(character, others)) {
      return false;
    }
  }
  return true;
}

bool isScheme(std::string_view text) noexcept {
  if (text.empty() || !isLetter(text.front())) return false;
  for (const char character : text) {
    if (!isLetter(character) && !isDigit(character) && !isOneOf(character, "+-.")) return false;
  }
  return true;
}

/// Null for a text that is not UTF-8.
Text makeText(std::string_view text) {
  return Text::adopt(CFStringCreateWithCString(nullptr, std::string(text).c_str(), kCFStringEncodingUTF8));
}

/// Replaces the escapes of `text`, which are complete. Null when they stand for a zero byte or something else than
/// UTF-8.
Text makeUnescapedText(std::string_view text) {
  std::string unescaped;
  unescaped.reserve(text.size());
  for (std::size_t index = 0; index < text.size(); ++index) {
    char character = text[index];
    if (character == '%') {
      unsigned value = 0;
      std::from_chars(&text[index + 1], &text[index + 1] + 2, value, 16);
      if (value == 0) return {};
      character = static_cast<char>(value);
      index += 2;
    }
    unescaped += character;
  }
  return makeText(unescaped);
}

bool isIPv6Address(std::string_view text) {
  const std::size_t zone = text.find('%');
  if (zone != std::string_view::npos) {
    const std::string_view name = text.substr(zone);
    if (!name.starts_with("%25") || name.size() == 3 || !consistsOfCharactersAnd("", name)) return false;
  }
  in6_addr address;
  return inet_pton(AF_INET6, std::string(text.substr(0, zone)).c_str(), &address) == 1;
}

/// Shortens `text` to what stands before the first `separator`, and returns what stands after it.
std::optional<std::string_view> cut(std::string_view& text, char separator) noexcept {
  const std::size_t position = text.find(separator);
  if (position == std::string_view::npos) return std::nullopt;
  const std::string_view rest = text.substr(position + 1);
  text = text.substr(0, position);
  return rest;
}

// The steps below fill in what they read, and are false for what no URL has.

bool parseUserInformation(std::string_view name, Parts& parts) {
  const auto password = cut(name, ':');
  if (!consistsOfCharactersAnd("", name) || !consistsOfCharactersAnd(":", password.value_or(""))) return false;
  parts.userName = makeUnescapedText(name);
  if (password) parts.password = makeUnescapedText(*password);
  return parts.userName && (parts.password || !password);
}

bool parseHost(std::string_view text, Parts& parts) {
  if (text.empty()) return true;
  if (text.starts_with('[')) {
    if (!text.ends_with(']')) return false;
    text = text.substr(1, text.size() - 2);
    if (!isIPv6Address(text)) return false;
  } else if (!consistsOfCharactersAnd("", text)) {
    return false;
  }
  parts.host = makeUnescapedText(text);
  return static_cast<bool>(parts.host);
}

bool parsePort(std::string_view digits, Parts& parts) {
  if (digits.empty()) return true;
  std::uint16_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc{} || end != digits.data() + digits.size()) return false;
  parts.port = number;
  return true;
}

bool parseAuthority(std::string_view text, Parts& parts) {
  if (const std::size_t at = text.find('@'); at != std::string_view::npos) {
    if (!parseUserInformation(text.substr(0, at), parts)) return false;
    text.remove_prefix(at + 1);
  }
  // An address in brackets has colons of its own. Without its closing bracket there is no end, and no address either.
  const std::size_t hostEnd = text.find(':', text.starts_with('[') ? text.find(']') : 0);
  const std::string_view port = hostEnd == std::string_view::npos ? "" : text.substr(hostEnd + 1);
  return parseHost(text.substr(0, hostEnd), parts) && parsePort(port, parts);
}

bool parsePath(std::string_view text, Parts& parts) {
  if (!consistsOfCharactersAnd(":@/", text)) return false;
  if (text.empty()) return true;
  parts.isAbsolute = text.starts_with('/');
  parts.strictPath = makeText(text.substr(parts.isAbsolute ? 1 : 0));
  return static_cast<bool>(parts.strictPath);
}

bool parseScheme(std::string_view text, Parts& parts) {
  if (!isScheme(text)) return false;
  parts.scheme = makeText(text);
  return static_cast<bool>(parts.scheme);
}

bool parse(std::string_view text, Parts& parts) {
  const std::size_t schemeEnd = text.find_first_of(":/?#");
  if (schemeEnd != std::string_view::npos && text[schemeEnd] == ':') {
    if (!parseScheme(text.substr(0, schemeEnd), parts)) return false;
    text.remove_prefix(schemeEnd + 1);
  }
  for (const char separator : {'#', '?'}) {
    if (!consistsOfCharactersAnd(":@/?", cut(text, separator).value_or(""))) return false;
  }
  parts.isDecomposable = !parts.scheme || text.starts_with('/');
  if (!parts.isDecomposable) return consistsOfCharactersAnd(":@/", text);

  if (text.starts_with("//")) {
    text.remove_prefix(2);
    const std::string_view authority = text.substr(0, text.find('/'));
    if (!parseAuthority(authority, parts)) return false;
    text.remove_prefix(authority.size());
  }
  return parsePath(text, parts);
}

CFStringRef copy(const Text& text) noexcept {
  return Text(text).leak();
}

}  // namespace

struct OpaqueCFURL final : NSObject {
  explicit OpaqueCFURL(Parts theParts) noexcept : parts(std::move(theParts)) {}

  const Parts parts;
};

CFURLRef CFURLCreateWithString(CFAllocatorRef, CFStringRef string, CFURLRef baseURL) {
  if (baseURL || CFStringGetLength(string) == 0) return nullptr;
  try {
    Parts parts;
    if (!parse(string->text(), parts)) return nullptr;
    return makeRef<OpaqueCFURL>(std::move(parts)).leak();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

Boolean CFURLCanBeDecomposed(CFURLRef url) {
  return url && url->parts.isDecomposable;
}

CFStringRef CFURLCopyScheme(CFURLRef url) {
  return url ? copy(url->parts.scheme) : nullptr;
}

CFStringRef CFURLCopyHostName(CFURLRef url) {
  return url ? copy(url->parts.host) : nullptr;
}

CFStringRef CFURLCopyUserName(CFURLRef url) {
  return url ? copy(url->parts.userName) : nullptr;
}

CFStringRef CFURLCopyPassword(CFURLRef url) {
  return url ? copy(url->parts.password) : nullptr;
}

CFStringRef CFURLCopyStrictPath(CFURLRef url, Boolean* isAbsolute) {
  if (isAbsolute) *isAbsolute = url && url->parts.isAbsolute;
  return url ? copy(url->parts.strictPath) : nullptr;
}

SInt32 CFURLGetPortNumber(CFURLRef url) {
  return url ? url->parts.port : -1;
}

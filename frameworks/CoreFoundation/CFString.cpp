#include <CoreFoundation/CFString.h>

#include <CoreFoundation/Objects/OpaqueCFString.h>

#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <string_view>

namespace {

bool isContinuation(unsigned char byte) noexcept {
  return (byte & 0xC0) == 0x80;
}

struct SequenceShape {
  std::size_t length;        ///< In bytes; 0 for a byte that cannot begin a sequence.
  unsigned char secondFrom;  ///< Range of the second byte: it keeps out overlong forms, surrogates
  unsigned char secondTo;    ///< and everything beyond U+10FFFF.
};

SequenceShape shapeOfSequence(unsigned char lead) noexcept {
  if (lead < 0x80) return {1, 0, 0};
  if (lead < 0xC2) return {0, 0, 0};
  if (lead < 0xE0) return {2, 0x80, 0xBF};
  if (lead == 0xE0) return {3, 0xA0, 0xBF};
  if (lead == 0xED) return {3, 0x80, 0x9F};
  if (lead < 0xF0) return {3, 0x80, 0xBF};
  if (lead == 0xF0) return {4, 0x90, 0xBF};
  if (lead < 0xF4) return {4, 0x80, 0xBF};
  if (lead == 0xF4) return {4, 0x80, 0x8F};
  return {0, 0, 0};
}

bool isUTF8(std::string_view text) noexcept {
  const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  for (std::size_t index = 0; index < text.size();) {
    const SequenceShape shape = shapeOfSequence(byteAt(index));
    if (shape.length == 0 || shape.length > text.size() - index) return false;
    for (std::size_t next = 1; next < shape.length; ++next) {
      const unsigned char byte = byteAt(index + next);
      if (!isContinuation(byte)) return false;
      if (next == 1 && (byte < shape.secondFrom || byte > shape.secondTo)) return false;
    }
    index += shape.length;
  }
  return true;
}

/// A sequence of four bytes lies outside the basic plane and takes a pair of surrogates.
CFIndex unitsBegunBy(unsigned char byte) noexcept {
  if (isContinuation(byte)) return 0;
  return byte >= 0xF0 ? 2 : 1;
}

}  // namespace

CFStringRef OpaqueCFString::constant(const char* text) {
  static std::mutex mutex;
  // Never destroyed: constants are in use until the process ends.
  static auto* const constants = new std::map<std::string, Ref<OpaqueCFString>, std::less<>>;
  const std::lock_guard lock(mutex);
  const auto known = constants->find(text);
  if (known != constants->end()) return known->second.get();
  auto string = makeRef<OpaqueCFString>(text);
  string->makeImmortal();
  return constants->emplace(text, std::move(string)).first->second.get();
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding encoding) {
  if (!text || encoding != kCFStringEncodingUTF8 || !isUTF8(text)) return nullptr;
  try {
    return makeRef<OpaqueCFString>(text).leak();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

CFStringRef CFStringCreateWithCStringNoCopy(CFAllocatorRef allocator, const char* text, CFStringEncoding encoding,
                                            CFAllocatorRef contentsDeallocator) {
  return contentsDeallocator == kCFAllocatorNull ? CFStringCreateWithCString(allocator, text, encoding) : nullptr;
}

CFIndex CFStringGetLength(CFStringRef string) {
  if (!string) return 0;
  CFIndex length = 0;
  for (const char byte : string->text()) length += unitsBegunBy(static_cast<unsigned char>(byte));
  return length;
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
  // A pair of surrogates takes four bytes, less than twice what one unit may take.
  constexpr CFIndex BytesOfOneUnit = 3;
  constexpr CFIndex Longest = std::numeric_limits<CFIndex>::max() / BytesOfOneUnit;
  if (encoding != kCFStringEncodingUTF8 || length < 0 || length > Longest) return kCFNotFound;
  return length * BytesOfOneUnit;
}

const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding) {
  return string && encoding == kCFStringEncodingUTF8 ? string->text().c_str() : nullptr;
}

Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize, CFStringEncoding encoding) {
  if (!string || !buffer || bufferSize <= 0 || encoding != kCFStringEncodingUTF8) return false;
  const std::string& text = string->text();
  if (text.size() >= static_cast<std::size_t>(bufferSize)) return false;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return true;
}

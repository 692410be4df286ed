#include <lumora/zBuffer.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>

zBuffer::zBuffer(unsigned int capacity, unsigned int increment) noexcept : _increment(increment) {
  // The room is a hint: an append that really needs it reports the failure.
  if (capacity > 0) Reserve(capacity);
}

zBuffer::~zBuffer() {
  std::free(_bytes);
}

void zBuffer::MakeEmpty() noexcept {
  _length = 0;
  *Data() = '\0';
}

bool zBuffer::Append(const void* bytes, unsigned int length) noexcept {
  if (length == 0) return true;
  if (!bytes || length > std::numeric_limits<unsigned int>::max() - _length) return false;

  const auto* text = static_cast<const char*>(bytes);
  const bool isOwn = _bytes && std::less_equal<>()(_bytes, text) && std::less<>()(text, _bytes + _length);
  const auto offset = isOwn ? text - _bytes : 0;
  const unsigned long long needed = _length + 0ULL + length;
  if (!_bytes || needed > _room) {
    const unsigned long long step = _increment > 0 ? _increment : _room;
    if (!Reserve(std::max(needed, _room + step))) return false;
  }
  std::memcpy(_bytes + _length, isOwn ? _bytes + offset : text, length);
  _length += length;
  _bytes[_length] = '\0';
  return true;
}

bool zBuffer::Reserve(unsigned long long length) noexcept {
  auto* const longer = static_cast<char*>(std::realloc(_bytes, length + 1));
  if (!longer) return false;
  _bytes = longer;
  _room = length;
  _bytes[_length] = '\0';
  return true;
}

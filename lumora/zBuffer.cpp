#include <lumora/zBuffer.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <limits>

zBuffer::zBuffer(unsigned int capacity, unsigned int increment) noexcept : _increment(increment) {
  try {
    _bytes.reserve(capacity);
  } catch (const std::exception&) {
    // The room was a hint: an append that really needs it reports the failure.
  }
}

bool zBuffer::Append(const void* bytes, unsigned int length) noexcept {
  if (length == 0) return true;
  if (!bytes || length > std::numeric_limits<unsigned int>::max() - Length()) return false;

  const auto* text = static_cast<const char*>(bytes);
  const std::size_t needed = _bytes.size() + length;
  try {
    if (needed <= _bytes.capacity() || _increment == 0) {
      _bytes.append(text, length);
      return true;
    }
    std::string grown;
    grown.reserve(std::max(needed, _bytes.capacity() + _increment));
    grown.append(_bytes).append(text, length);
    _bytes.swap(grown);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

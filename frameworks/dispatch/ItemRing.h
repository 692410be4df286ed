#pragma once

// First in, first out, in storage that is kept: once it has held as many items before, it does not allocate.

#include <cassert>
#include <cstddef>
#include <vector>

/// For items that are cheap to copy. Not synchronised.
template <typename Item>
class ItemRing {
 public:
  bool isEmpty() const noexcept { return _count == 0; }

  void push(const Item& item) {
    if (_count == _slots.size()) grow();
    _slots[(_first + _count) % _slots.size()] = item;
    ++_count;
  }

  /// Takes the oldest item; there must be one.
  Item pop() noexcept {
    assert(!isEmpty());
    const Item item = _slots[_first];
    --_count;
    // An empty ring begins at its first slot again, so that one item at a time always passes through the same piece of
    // cache.
    _first = _count == 0 ? 0 : (_first + 1) % _slots.size();
    return item;
  }

 private:
  void grow() {
    constexpr std::size_t InitialSize = 512;  // more than waits on a capture queue whose delegate is late
    std::vector<Item> larger(_slots.empty() ? InitialSize : _slots.size() * 2);
    for (std::size_t index = 0; index < _count; ++index) larger[index] = _slots[(_first + index) % _slots.size()];
    _slots.swap(larger);
    _first = 0;
  }

  std::vector<Item> _slots;
  std::size_t _first = 0;
  std::size_t _count = 0;
};

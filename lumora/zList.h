#pragma once

// Items in the order in which they were appended. It owns neither what its items point to nor a lock: one thread at a
// time.

#include <cstddef>
#include <utility>
#include <vector>

template <typename Item>
class zList {
 public:
  using value_type = Item;
  using const_iterator = typename std::vector<Item>::const_iterator;

  void Append(Item item) { _items.push_back(std::move(item)); }
  void Clear() noexcept { _items.clear(); }
  std::size_t Size() const noexcept { return _items.size(); }

  /// The item at `index`, which must be below `Size()`.
  const Item& operator[](std::size_t index) const noexcept { return _items[index]; }

  const_iterator begin() const noexcept { return _items.begin(); }
  const_iterator end() const noexcept { return _items.end(); }

 private:
  std::vector<Item> _items;
};

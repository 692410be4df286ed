#pragma once

// An ordered map for registries: keys in ascending order of plain `<`, each with one value. It owns neither what its
// values point to nor a lock: one thread at a time.

#include <cstddef>
#include <map>
#include <utility>

template <typename Key, typename Value>
class zMap {
 public:
  using value_type = typename std::map<Key, Value>::value_type;
  using const_iterator = typename std::map<Key, Value>::const_iterator;

  /// Stores `value` under `key`, in place of the one that was there.
  void Insert(const Key& key, Value value) { _entries.insert_or_assign(key, std::move(value)); }

  /// The value stored under `key`, valid until it is erased; null when there is none.
  const Value* Find(const Key& key) const {
    const auto entry = _entries.find(key);
    return entry != _entries.end() ? &entry->second : nullptr;
  }
  Value* Find(const Key& key) { return const_cast<Value*>(std::as_const(*this).Find(key)); }

  bool Contains(const Key& key) const { return Find(key) != nullptr; }

  /// False when `key` was not there.
  bool Erase(const Key& key) { return _entries.erase(key) != 0; }

  void Clear() noexcept { _entries.clear(); }
  std::size_t Size() const noexcept { return _entries.size(); }

  /// The entries as pairs of key (`first`) and value (`second`), in ascending order of keys.
  const_iterator begin() const noexcept { return _entries.begin(); }
  const_iterator end() const noexcept { return _entries.end(); }

 private:
  std::map<Key, Value> _entries;
};

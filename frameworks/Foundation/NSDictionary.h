#pragma once

// Small immutable dictionaries from strings to objects: output settings, buffer attachments, error details.

#include <CoreFoundation/CFDictionary.h>
#include <Foundation/NSString.h>
#include <runtime/NSObject.h>

#include <initializer_list>
#include <utility>
#include <vector>

class NSDictionary final : public NSObject {
 public:
  using Entry = std::pair<CFStringRef, Ref<NSObject>>;

  NSDictionary() = default;
  /// Retains keys and values. Of two equal keys the later one wins.
  NSDictionary(std::initializer_list<Entry> entries);

  /// The value under the key, borrowed; null when there is none. A lookup with the very key object that
  /// was stored (the constants of the frameworks are unique) costs a few comparisons of pointers.
  NSObject* objectForKey(CFStringRef key) const noexcept;

  std::size_t count() const noexcept { return _entries.size(); }

  /// All pairs, in no promised order.
  const std::vector<std::pair<Ref<NSString>, Ref<NSObject>>>& entries() const noexcept { return _entries; }

  /// Adds or replaces; only while the dictionary is being built by its maker. Null key or value: nothing is added.
  void insert(CFStringRef key, Ref<NSObject> value);

  static const NSDictionary* from(CFDictionaryRef dictionary) noexcept {
    return reinterpret_cast<const NSDictionary*>(dictionary);
  }
  CFDictionaryRef toCF() const noexcept { return reinterpret_cast<CFDictionaryRef>(this); }

 private:
  std::vector<std::pair<Ref<NSString>, Ref<NSObject>>> _entries;
};

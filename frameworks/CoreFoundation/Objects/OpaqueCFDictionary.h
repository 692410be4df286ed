#pragma once

// The object behind CFDictionaryRef, which Foundation calls NSDictionary. C++ only.

#include <CoreFoundation/Objects/OpaqueCFString.h>
#include <runtime/NSObject.h>

#include <initializer_list>
#include <utility>
#include <vector>

struct OpaqueCFDictionary final : NSObject {
 public:
  using Entry = std::pair<CFStringRef, Ref<NSObject>>;

  OpaqueCFDictionary() = default;
  /// Retains keys and values. Of two equal keys the later one wins.
  OpaqueCFDictionary(std::initializer_list<Entry> entries);

  /// The value under the key, borrowed; null when there is none. A lookup with the very key object that
  /// was stored (the constants of the frameworks are unique) costs a few comparisons of pointers.
  NSObject* objectForKey(CFStringRef key) const noexcept;

  /// Adds or replaces; only while the dictionary is being built by its maker. Null key or value: nothing is added.
  void insert(CFStringRef key, Ref<NSObject> value);

 private:
  std::vector<std::pair<Ref<const OpaqueCFString>, Ref<NSObject>>> _entries;
};

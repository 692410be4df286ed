#include <CoreFoundation/CFDictionary.h>

#include <CoreFoundation/Objects/OpaqueCFDictionary.h>

OpaqueCFDictionary::OpaqueCFDictionary(std::initializer_list<Entry> entries) {
  _entries.reserve(entries.size());
  for (const auto& [key, value] : entries) insert(key, value);
}

NSObject* OpaqueCFDictionary::objectForKey(CFStringRef key) const noexcept {
  if (!key) return nullptr;
  for (const auto& [stored, value] : _entries) {
    if (stored.get() == key) return value.get();
  }
  for (const auto& [stored, value] : _entries) {
    if (stored->text() == key->text()) return value.get();
  }
  return nullptr;
}

void OpaqueCFDictionary::insert(CFStringRef key, Ref<NSObject> value) {
  if (!key || !value) return;
  for (auto& [stored, present] : _entries) {
    if (stored->text() != key->text()) continue;
    present = std::move(value);
    return;
  }
  _entries.emplace_back(Ref<const OpaqueCFString>::retain(key), std::move(value));
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
  return dictionary ? dictionary->objectForKey(static_cast<CFStringRef>(key)) : nullptr;
}

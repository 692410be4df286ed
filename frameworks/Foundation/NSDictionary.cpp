#include <Foundation/NSDictionary.h>

#include <new>

NSDictionary::NSDictionary(std::initializer_list<Entry> entries) {
  _entries.reserve(entries.size());
  for (const auto& [key, value] : entries) insert(key, value);
}

NSObject* NSDictionary::objectForKey(CFStringRef key) const noexcept {
  if (!key) return nullptr;
  const NSString* wanted = NSString::from(key);
  for (const auto& [stored, value] : _entries) {
    if (stored.get() == wanted) return value.get();
  }
  for (const auto& [stored, value] : _entries) {
    if (stored->text() == wanted->text()) return value.get();
  }
  return nullptr;
}

void NSDictionary::insert(CFStringRef key, Ref<NSObject> value) {
  if (!key || !value) return;
  const NSString* added = NSString::from(key);
  for (auto& [stored, present] : _entries) {
    if (stored->text() != added->text()) continue;
    present = std::move(value);
    return;
  }
  // The handles count references only; a key is never written through them.
  _entries.emplace_back(Ref<NSString>::retain(const_cast<NSString*>(added)), std::move(value));
}

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keys, const void** values, CFIndex count, const void*,
                                   const void*) {
  if (count < 0 || (count > 0 && (!keys || !values))) return nullptr;
  try {
    auto dictionary = makeRef<NSDictionary>();
    for (CFIndex index = 0; index < count; ++index) {
      auto* value = const_cast<NSObject*>(static_cast<const NSObject*>(values[index]));
      dictionary->insert(static_cast<CFStringRef>(keys[index]), Ref<NSObject>::retain(value));
    }
    return dictionary.leak()->toCF();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary) {
  return dictionary ? static_cast<CFIndex>(NSDictionary::from(dictionary)->count()) : 0;
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
  return dictionary ? NSDictionary::from(dictionary)->objectForKey(static_cast<CFStringRef>(key)) : nullptr;
}

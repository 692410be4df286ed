#include <CoreFoundation/CFArray.h>

#include <runtime/NSObject.h>

#include <new>
#include <utility>
#include <vector>

struct OpaqueCFArray final : NSObject {
  explicit OpaqueCFArray(std::vector<const void*> pointers) noexcept : values(std::move(pointers)) {}

  const std::vector<const void*> values;
};

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex count, const void* callBacks) {
  if (callBacks || count < 0 || (count > 0 && !values)) return nullptr;
  try {
    std::vector<const void*> pointers;
    if (count > 0) pointers.assign(values, values + count);
    return makeRef<OpaqueCFArray>(std::move(pointers)).leak();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

CFIndex CFArrayGetCount(CFArrayRef array) {
  return array ? static_cast<CFIndex>(array->values.size()) : 0;
}

const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) {
  if (index < 0 || index >= CFArrayGetCount(array)) return nullptr;
  return array->values[static_cast<std::size_t>(index)];
}

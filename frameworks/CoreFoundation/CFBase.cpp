#include <CoreFoundation/CFBase.h>

#include <runtime/NSObject.h>

namespace {

const NSObject* toObject(CFTypeRef object) noexcept {
  return static_cast<const NSObject*>(object);
}

}  // namespace

CFTypeRef CFRetain(CFTypeRef object) {
  if (object) toObject(object)->retain();
  return object;
}

void CFRelease(CFTypeRef object) {
  if (object) toObject(object)->release();
}

#pragma once

// Numbers. The C type is the same object as Foundation's NSNumber.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct OpaqueCFNumber* CFNumberRef;

typedef CFIndex CFNumberType;
enum {
  kCFNumberSInt32Type = 3,
  kCFNumberSInt64Type = 4,
  kCFNumberFloat32Type = 5,
  kCFNumberFloat64Type = 6,
};

/// A new number holding the value at `value`, which the caller releases; null for an unknown type.
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void* value);

/// Stores the number at `value`, converted to `type`. False when the conversion lost something (the
/// value is then stored as near as the type allows) or the type is unknown (nothing is stored).
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value);

CF_EXTERN_C_END

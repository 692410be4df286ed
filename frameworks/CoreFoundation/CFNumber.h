#pragma once

// Numbers, as they stand in dictionaries.

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

/// Stores the number at `value`, converted to `type`. False when the conversion lost something (the
/// value is then stored as near as the type allows) or the type is unknown (nothing is stored).
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value);

CF_EXTERN_C_END

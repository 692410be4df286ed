#pragma once

// Arrays of plain pointers. The array retains nothing; what it points to belongs to its maker.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct OpaqueCFArray* CFArrayRef;

/// A new array of `count` pointers, which the caller releases. The pointers are not retained, as on the
/// original with null callbacks, the only ones accepted here: with others, a negative count or a null `values`
/// to read from, the result is null.
CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void** values, CFIndex count, const void* callBacks);

CFIndex CFArrayGetCount(CFArrayRef array);

/// The pointer at `index`; null outside 0 to count - 1.
const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);

CF_EXTERN_C_END

#pragma once

// Immutable dictionaries with string keys. The C type is the same object as Foundation's NSDictionary.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct OpaqueCFDictionary* CFDictionaryRef;

/// A new dictionary of `count` pairs, which the caller releases. Keys are strings, compared by value;
/// values are any objects. Both are retained. Of two equal keys the later one wins; a pair with a null half is
/// left out. Null for a negative count, or for null arrays with pairs to read. Call-backs are not read.
CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void** keys, const void** values, CFIndex count,
                                   const void* keyCallBacks, const void* valueCallBacks);

CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary);

/// The value under the key, borrowed from the dictionary; null when there is none.
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key);

CF_EXTERN_C_END

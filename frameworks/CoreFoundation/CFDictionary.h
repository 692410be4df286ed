#pragma once

// Immutable dictionaries with string keys.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct OpaqueCFDictionary* CFDictionaryRef;

/// The value under the key (a string), borrowed from the dictionary; null when there is none.
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key);

CF_EXTERN_C_END

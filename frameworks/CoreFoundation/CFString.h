#pragma once

// Immutable strings.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef UInt32 CFStringEncoding;
enum { kCFStringEncodingUTF8 = 0x08000100 };

/// Copies NUL-terminated text into a new string that the caller releases. Only UTF-8 is understood:
/// null for a null text, another encoding, or bytes that are not UTF-8.
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text, CFStringEncoding encoding);

/// The same for text that may be used in place, as long as the string lives: it is copied nevertheless, and the caller
/// need not keep it. The text stays the caller's, so the deallocator must be kCFAllocatorNull; null with another.
CFStringRef CFStringCreateWithCStringNoCopy(CFAllocatorRef allocator, const char* text, CFStringEncoding encoding,
                                            CFAllocatorRef contentsDeallocator);

/// Length in UTF-16 code units.
CFIndex CFStringGetLength(CFStringRef string);

/// The most bytes that `length` UTF-16 code units take in UTF-8, the terminator not among them. kCFNotFound for another
/// encoding, a negative length, or one whose size no CFIndex holds.
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);

/// The string's own NUL-terminated bytes, valid as long as the string; null for another encoding than UTF-8.
const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);

/// Copies text and terminator into `buffer`; false (nothing usable in `buffer`) when they do not fit.
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize, CFStringEncoding encoding);

CF_EXTERN_C_END

#pragma once

// Base types of the C interfaces. Every framework object, whatever its C type, is one counted
// object underneath; CFRetain and CFRelease work on all of them, from C and C++ alike, on any thread. The C types of
// strings, numbers and dictionaries are Foundation's NSString, NSNumber and NSDictionary.

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#define CF_EXTERN_C_BEGIN extern "C" {
#define CF_EXTERN_C_END }
#else
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#define CF_EXTERN_C_BEGIN
#define CF_EXTERN_C_END
#endif

CF_EXTERN_C_BEGIN

typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef float Float32;
typedef double Float64;
typedef uint8_t Boolean;

typedef SInt32 OSStatus;
/// Four bytes, most significant first, that spell a code: 'vide' is 0x76696465.
typedef UInt32 FourCharCode;
typedef FourCharCode OSType;

typedef long CFIndex;
typedef const void* CFTypeRef;
typedef const struct OpaqueCFAllocator* CFAllocatorRef;
typedef const struct OpaqueCFString* CFStringRef;

/// The one allocator. The interfaces accept it, or any other value, and do not read it.
#define kCFAllocatorDefault ((CFAllocatorRef)0)
/// Stands for a deallocator that does nothing: the memory stays its owner's.
#define kCFAllocatorNull ((CFAllocatorRef)1)

enum { kCFNotFound = -1 };

enum { noErr = 0 };

typedef struct CGSize {
  double width;
  double height;
} CGSize;

/// Adds one to the object's reference count and returns the object. Null is ignored.
CFTypeRef CFRetain(CFTypeRef object);

/// Takes one from the object's reference count; the last release frees it. Null is ignored.
void CFRelease(CFTypeRef object);

CF_EXTERN_C_END

#pragma once

// URLs, taken apart. Immutable objects; any thread.
//
// A text is a URL when RFC 3986 says so, and then in full: what it does not allow makes no URL at all rather than one
// that was guessed at.
// - Spaces, control characters, anything but ASCII, and "<>\"{}|\\^`" have to be escaped; two hexadecimal digits
//   follow a "%"; brackets stand around an IPv6 address, which may have a zone ("%25eth0"), and nowhere else.
// - A host follows "//". User name and password may stand before it with one "@" after them; an "@" of their own is
//   escaped. The first ":" ends the user name, so that a ":" in the password may stand as it is.
// - A port is a decimal number up to 65535. An empty one, ":" without digits, is none.
// - The escapes of user name, password and host stand for UTF-8 without zero bytes. Those of the path may stand for
//   anything.
// - A first path component with a ":" is a scheme, and has to look like one: "10.0.0.1:554" is no URL.
//
// Not modelled: base URLs, escaping, other encodings than UTF-8.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct OpaqueCFURL* CFURLRef;

/// A new URL, which the caller releases. Null for a null or empty string, a string that is no URL, a base URL other
/// than null, or without memory. Takes time in proportion to the text's length.
CFURLRef CFURLCreateWithString(CFAllocatorRef allocator, CFStringRef string, CFURLRef baseURL);

/// False when no slash follows the scheme ("mailto:desk", "localhost:554"): such a URL has a scheme alone. False for
/// null.
Boolean CFURLCanBeDecomposed(CFURLRef url);

// The parts of a URL, each for the caller to release; null when the URL does not have it, or is null itself.

/// As it is written: letter case is kept.
CFStringRef CFURLCopyScheme(CFURLRef url);

/// Escapes replaced, an IPv6 address without its brackets. Null when it is empty, too.
CFStringRef CFURLCopyHostName(CFURLRef url);

/// Escapes replaced. Empty, not null, where only the "@" is there.
CFStringRef CFURLCopyUserName(CFURLRef url);

/// Escapes replaced. Empty, not null, where only the ":" is there.
CFStringRef CFURLCopyPassword(CFURLRef url);

/// The path without its leading slash, whose presence goes to `*isAbsolute` (may be null), escapes left as they are,
/// without query and fragment. Null when the URL has no path, and empty when the path is a slash.
CFStringRef CFURLCopyStrictPath(CFURLRef url, Boolean* isAbsolute);

/// The port; -1 when there is none.
SInt32 CFURLGetPortNumber(CFURLRef url);

CF_EXTERN_C_END

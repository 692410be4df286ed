#pragma once

// Strings as objects. Only C interfaces and dictionary keys need them; everywhere else a string is a std::string in
// UTF-8.

#include <CoreFoundation/CFString.h>
#include <CoreFoundation/Objects/OpaqueCFString.h>

using NSString = OpaqueCFString;

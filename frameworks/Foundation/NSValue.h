#pragma once

// Numbers in dictionaries.

#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/Objects/OpaqueCFNumber.h>

using NSNumber = OpaqueCFNumber;

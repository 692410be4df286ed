#pragma once

// Small immutable dictionaries from strings to objects: output settings, buffer attachments, format extensions.

#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/Objects/OpaqueCFDictionary.h>
#include <Foundation/NSString.h>

using NSDictionary = OpaqueCFDictionary;

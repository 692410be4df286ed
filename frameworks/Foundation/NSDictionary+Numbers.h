#pragma once

// Numbers out of dictionaries that came from somewhere else: every value is checked for its type.

#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <cmath>

/// The number under the key, borrowed; null when the dictionary is null or holds none there.
inline const NSNumber* numberForKey(const NSDictionary* dictionary, CFStringRef key) noexcept {
  return dictionary ? dynamic_cast<const NSNumber*>(dictionary->objectForKey(key)) : nullptr;
}

/// The number under the key when it can be a size, finite and above zero; else 0.
inline double positiveNumberForKey(const NSDictionary* dictionary, CFStringRef key) noexcept {
  const NSNumber* number = numberForKey(dictionary, key);
  if (!number) return 0;
  const double value = number->doubleValue();
  return std::isfinite(value) && value > 0 ? value : 0;
}

#include <CoreFoundation/CFNumber.h>

#include <CoreFoundation/Objects/OpaqueCFNumber.h>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

/// The nearest integer toward zero that the type holds; 0 for NaN.
template <typename Integer>
Integer held(double number) noexcept {
  using Limits = std::numeric_limits<Integer>;
  if (std::isnan(number)) return 0;
  if (number <= static_cast<double>(Limits::min())) return Limits::min();
  // As a double, the largest 64-bit integer is the first number beyond.
  if (number >= static_cast<double>(Limits::max())) return Limits::max();
  return static_cast<Integer>(number);
}

/// True when the value is the number itself, or both are NaN.
template <typename Value>
Boolean store(Value value, double number, void* destination) noexcept {
  std::memcpy(destination, &value, sizeof value);
  return static_cast<double>(value) == number || (std::isnan(number) && std::isnan(static_cast<double>(value)));
}

}  // namespace

std::int64_t OpaqueCFNumber::longLongValue() const noexcept {
  return held<std::int64_t>(_value);
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) {
  if (!number || !value) return false;
  const double exact = number->doubleValue();
  switch (type) {
    case kCFNumberSInt32Type:
      return store(held<SInt32>(exact), exact, value);
    case kCFNumberSInt64Type:
      return store(held<SInt64>(exact), exact, value);
    case kCFNumberFloat32Type:
      return store(static_cast<Float32>(exact), exact, value);
    case kCFNumberFloat64Type:
      return store(exact, exact, value);
    default:
      return false;
  }
}

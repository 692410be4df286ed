#include <Foundation/NSValue.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

namespace {

constexpr double TwoTo63 = 9223372036854775808.0;

template <typename T>
T load(const void* value) noexcept {
  T result;
  std::memcpy(&result, value, sizeof result);
  return result;
}

template <typename T>
void store(void* destination, T value) noexcept {
  std::memcpy(destination, &value, sizeof value);
}

/// True when the number is a whole one inside the 64-bit range.
bool isExactInteger(const NSNumber& number) noexcept {
  if (!number.isFloatType()) return true;
  const double value = number.doubleValue();
  return value >= -TwoTo63 && value < TwoTo63 && std::trunc(value) == value;
}

bool storeAsInt32(const NSNumber& number, void* destination) noexcept {
  using Limits = std::numeric_limits<std::int32_t>;
  const std::int64_t value = number.longLongValue();
  const std::int64_t held = std::clamp<std::int64_t>(value, Limits::min(), Limits::max());
  store(destination, static_cast<std::int32_t>(held));
  return held == value && isExactInteger(number);
}

bool storeAsInt64(const NSNumber& number, void* destination) noexcept {
  store(destination, number.longLongValue());
  return isExactInteger(number);
}

bool storeAsDouble(const NSNumber& number, void* destination) noexcept {
  const double value = number.doubleValue();
  store(destination, value);
  if (number.isFloatType()) return true;
  return value < TwoTo63 && static_cast<std::int64_t>(value) == number.longLongValue();
}

bool storeAsFloat(const NSNumber& number, void* destination) noexcept {
  // Every picture's pixel aspect passes here, and its numbers are small: integers of this range are exact as floats,
  // and no number of it is beyond a float's limits.
  constexpr double LargestExactInteger = 16777216;
  if (const double small = number.doubleValue(); std::abs(small) <= LargestExactInteger) {
    const auto exactOrNear = static_cast<float>(small);
    store(destination, exactOrNear);
    return static_cast<double>(exactOrNear) == small;
  }
  constexpr double Largest = std::numeric_limits<float>::max();
  double value = number.doubleValue();
  const bool exactAsDouble = storeAsDouble(number, &value);
  // Infinity and NaN have a float of their own; only finite values are held at the limits.
  const double held = std::isfinite(value) ? std::clamp(value, -Largest, Largest) : value;
  const auto narrowed = static_cast<float>(held);
  store(destination, narrowed);
  return exactAsDouble && (std::isnan(value) || static_cast<double>(narrowed) == value);
}

Ref<NSNumber> numberWithBytes(CFNumberType type, const void* value) {
  switch (type) {
    case kCFNumberSInt32Type:
      return NSNumber::numberWithInt(load<std::int32_t>(value));
    case kCFNumberSInt64Type:
      return NSNumber::numberWithLongLong(load<std::int64_t>(value));
    case kCFNumberFloat32Type:
      return NSNumber::numberWithDouble(static_cast<double>(load<float>(value)));
    case kCFNumberFloat64Type:
      return NSNumber::numberWithDouble(load<double>(value));
    default:
      return {};
  }
}

}  // namespace

std::int64_t NSNumber::longLongValue() const noexcept {
  if (const auto* integer = std::get_if<std::int64_t>(&_value)) return *integer;
  const double real = doubleValue();
  if (std::isnan(real)) return 0;
  if (real < -TwoTo63) return std::numeric_limits<std::int64_t>::min();
  if (real >= TwoTo63) return std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(real);
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void* value) {
  if (!value) return nullptr;
  try {
    const NSNumber* number = numberWithBytes(type, value).leak();
    return number ? number->toCF() : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) {
  if (!number || !value) return false;
  const NSNumber& source = *NSNumber::from(number);
  switch (type) {
    case kCFNumberSInt32Type:
      return storeAsInt32(source, value);
    case kCFNumberSInt64Type:
      return storeAsInt64(source, value);
    case kCFNumberFloat32Type:
      return storeAsFloat(source, value);
    case kCFNumberFloat64Type:
      return storeAsDouble(source, value);
    default:
      return false;
  }
}

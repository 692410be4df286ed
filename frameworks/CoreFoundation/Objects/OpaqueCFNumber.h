#pragma once

// The object behind CFNumberRef, which Foundation calls NSNumber. C++ only.

#include <runtime/NSObject.h>

#include <cstdint>

/// Every number is held as a double, which is exact for all that these can be made of.
struct OpaqueCFNumber final : NSObject {
 public:
  explicit OpaqueCFNumber(double value) noexcept : _value(value) {}

  static Ref<OpaqueCFNumber> numberWithInt(std::int32_t value) { return makeRef<OpaqueCFNumber>(value); }
  static Ref<OpaqueCFNumber> numberWithUnsignedInt(std::uint32_t value) { return makeRef<OpaqueCFNumber>(value); }
  static Ref<OpaqueCFNumber> numberWithDouble(double value) { return makeRef<OpaqueCFNumber>(value); }
  static Ref<OpaqueCFNumber> numberWithBool(bool value) { return makeRef<OpaqueCFNumber>(value ? 1 : 0); }

  double doubleValue() const noexcept { return _value; }
  /// Truncated toward zero and held at the type's limits; 0 for NaN.
  std::int64_t longLongValue() const noexcept;
  bool boolValue() const noexcept { return _value != 0; }

 private:
  double _value;
};

#pragma once

// Numbers in dictionaries.

#include <CoreFoundation/CFNumber.h>
#include <runtime/NSObject.h>

#include <cstdint>
#include <variant>

class NSNumber final : public NSObject {
 public:
  explicit NSNumber(std::int64_t value) noexcept : _value(value) {}
  explicit NSNumber(double value) noexcept : _value(value) {}

  static Ref<NSNumber> numberWithInt(std::int32_t value) { return makeRef<NSNumber>(std::int64_t{value}); }
  static Ref<NSNumber> numberWithUnsignedInt(std::uint32_t value) { return makeRef<NSNumber>(std::int64_t{value}); }
  static Ref<NSNumber> numberWithLongLong(std::int64_t value) { return makeRef<NSNumber>(value); }
  static Ref<NSNumber> numberWithDouble(double value) { return makeRef<NSNumber>(value); }
  static Ref<NSNumber> numberWithBool(bool value) { return makeRef<NSNumber>(std::int64_t{value ? 1 : 0}); }

  bool isFloatType() const noexcept { return std::holds_alternative<double>(_value); }
  /// The value as the asked type; a real number is truncated toward zero and held at the type's limits, NaN gives 0.
  std::int64_t longLongValue() const noexcept;
  double doubleValue() const noexcept {
    if (const auto* real = std::get_if<double>(&_value)) return *real;
    return static_cast<double>(*std::get_if<std::int64_t>(&_value));
  }
  bool boolValue() const noexcept { return doubleValue() != 0.0; }

  static const NSNumber* from(CFNumberRef number) noexcept { return reinterpret_cast<const NSNumber*>(number); }
  CFNumberRef toCF() const noexcept { return reinterpret_cast<CFNumberRef>(this); }

 private:
  std::variant<std::int64_t, double> _value;
};

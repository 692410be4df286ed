#pragma once

// One sample in memory to one number and back. Integers appear in two forms: left-justified in 32 bits, where full
// scale is the same for every width, and right-justified, the value itself. Pure functions, endian-neutral, no
// alignment needed.

#include <AudioToolbox/Converter/PCMFormat.h>

#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace AudioConversion {

template <unsigned Bytes>
using UnsignedOf = std::conditional_t<(Bytes > 4), uint64_t, uint32_t>;

// Words that the machine knows are moved as such; compilers do not see through a loop over bytes at every level.
template <unsigned Bytes>
inline constexpr bool kIsMachineWord = Bytes == 1 || Bytes == 2 || Bytes == 4 || Bytes == 8;

template <unsigned Bytes>
using WordOf =
    std::conditional_t<Bytes == 1, uint8_t,
                       std::conditional_t<Bytes == 2, uint16_t, std::conditional_t<Bytes == 4, uint32_t, uint64_t>>>;

template <bool BigEndian, typename Word>
Word inMachineOrder(Word word) noexcept {
  if constexpr (BigEndian == (std::endian::native == std::endian::big) || sizeof(Word) == 1) {
    return word;
  } else if constexpr (sizeof(Word) == 2) {
    return __builtin_bswap16(word);
  } else if constexpr (sizeof(Word) == 4) {
    return __builtin_bswap32(word);
  } else {
    return __builtin_bswap64(word);
  }
}

template <unsigned Bytes, bool BigEndian>
UnsignedOf<Bytes> loadBytes(const std::byte* at) noexcept {
  if constexpr (kIsMachineWord<Bytes>) {
    WordOf<Bytes> word;
    std::memcpy(&word, at, Bytes);
    return inMachineOrder<BigEndian>(word);
  } else {
    UnsignedOf<Bytes> value = 0;
    for (unsigned i = 0; i < Bytes; ++i) {
      value |= static_cast<UnsignedOf<Bytes>>(at[BigEndian ? Bytes - 1 - i : i]) << (8 * i);
    }
    return value;
  }
}

template <unsigned Bytes, bool BigEndian>
void storeBytes(std::byte* at, UnsignedOf<Bytes> value) noexcept {
  if constexpr (kIsMachineWord<Bytes>) {
    const WordOf<Bytes> word = inMachineOrder<BigEndian>(static_cast<WordOf<Bytes>>(value));
    std::memcpy(at, &word, Bytes);
  } else {
    for (unsigned i = 0; i < Bytes; ++i) {
      at[BigEndian ? Bytes - 1 - i : i] = static_cast<std::byte>((value >> (8 * i)) & 0xFF);
    }
  }
}

/// What an integer sample of a given width and place needs beyond its container's bytes. By default, nothing.
struct IntegerPlace {
  unsigned bits = 32;            ///< significant bits
  unsigned leftShift = 0;        ///< from its place in the left-justified container to the top
  unsigned lowZeros = 0;         ///< zero bits below an aligned-high sample in its container
  uint32_t mask = ~uint32_t{0};  ///< the sample in the left-justified form; what lies below is padding, not sound
  uint32_t offset = 0;           ///< what an unsigned sample adds to the right-justified value

  IntegerPlace() = default;
  /// `sample` is an integer.
  explicit IntegerPlace(const SampleEncoding& sample) noexcept
      : bits(sample.bits),
        leftShift(sample.alignedHigh ? 0 : sample.containerBytes * 8 - sample.bits),
        lowZeros(sample.alignedHigh ? sample.containerBytes * 8 - sample.bits : 0),
        mask(~uint32_t{0} << (32 - sample.bits)),
        offset(sample.kind == SampleKind::UnsignedInteger ? uint32_t{1} << (sample.bits - 1) : 0) {}
};

/// Left-justified.
template <unsigned Bytes, bool BigEndian>
int32_t loadInteger(const IntegerPlace& place, const std::byte* at) noexcept {
  const uint32_t container = loadBytes<Bytes, BigEndian>(at) << (32 - 8 * Bytes);
  const uint32_t value = (container << place.leftShift) & place.mask;
  return static_cast<int32_t>(value ^ (place.offset << (32 - place.bits)));
}

/// Takes the right-justified value.
template <unsigned Bytes, bool BigEndian>
void storeInteger(const IntegerPlace& place, std::byte* at, int32_t value) noexcept {
  storeBytes<Bytes, BigEndian>(at, (static_cast<uint32_t>(value) + place.offset) << place.lowZeros);
}

template <std::floating_point Real, bool BigEndian>
Real loadReal(const std::byte* at) noexcept {
  return std::bit_cast<Real>(loadBytes<sizeof(Real), BigEndian>(at));
}

template <std::floating_point Real, bool BigEndian>
void storeReal(std::byte* at, Real value) noexcept {
  storeBytes<sizeof(Real), BigEndian>(at, std::bit_cast<UnsignedOf<sizeof(Real)>>(value));
}

/// A left-justified integer as a working value: the same integer, or a real number with full scale at 1.
template <typename Work>
Work workFromInteger(int32_t leftJustified) noexcept {
  if constexpr (std::is_same_v<Work, int32_t>) {
    return leftJustified;
  } else {
    return static_cast<Work>(leftJustified) * static_cast<Work>(1.0 / 2147483648.0);
  }
}

/// To nearest, ties to even, held at the limits of `bits`; NaN becomes 0.
inline int32_t integerFromReal(double value, unsigned bits) noexcept {
  const double limit = static_cast<double>(uint32_t{1} << (bits - 1));
  double scaled = value * limit;
  if (std::isnan(scaled)) return 0;
  scaled = scaled < limit - 1 ? scaled : limit - 1;
  scaled = scaled > -limit ? scaled : -limit;
  // Adding 1.5 * 2^52 leaves no room for a fraction, so the addition rounds, and the integer stands in the low bits.
  return static_cast<int32_t>(static_cast<uint32_t>(std::bit_cast<uint64_t>(scaled + 6755399441055744.0)));
}

/// A left-justified integer rounded to `bits` (to nearest, ties to even, held at the limit), right-justified.
inline int32_t integerFromInteger(int32_t leftJustified, unsigned bits) noexcept {
  const unsigned shift = 32 - bits;
  if (shift == 0) return leftJustified;
  const int32_t half = int32_t{1} << (shift - 1);
  const int32_t highest = std::numeric_limits<int32_t>::max() - half;
  const int32_t value = leftJustified < highest ? leftJustified : highest;
  const int32_t tieBreak = (value >> shift) & 1;
  return (value + (half - 1) + tieBreak) >> shift;
}

template <typename Work>
int32_t integerFromWork(Work value, unsigned bits) noexcept {
  if constexpr (std::is_same_v<Work, int32_t>) {
    return integerFromInteger(value, bits);
  } else {
    return integerFromReal(value, bits);
  }
}

}  // namespace AudioConversion

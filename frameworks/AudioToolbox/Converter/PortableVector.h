#pragma once

// Vectors of 16 bytes, which every 64-bit processor has; the compiler knows how. For sources only.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace AudioConversion {

template <typename Value>
struct PortableVectorOf;
template <>
struct PortableVectorOf<float> {
  typedef float Type __attribute__((vector_size(16)));
};
template <>
struct PortableVectorOf<double> {
  typedef double Type __attribute__((vector_size(16)));
};
template <>
struct PortableVectorOf<int32_t> {
  typedef int32_t Type __attribute__((vector_size(16)));
};
template <typename Value>
using PortableVector = typename PortableVectorOf<Value>::Type;

template <typename Value>
inline constexpr size_t kPortableLanes = 16 / sizeof(Value);

/// No alignment is needed.
template <typename Value>
PortableVector<Value> loadVector(const void* from) noexcept {
  PortableVector<Value> values;
  std::memcpy(&values, from, sizeof values);
  return values;
}

template <typename Vector>
void storeVector(void* to, const Vector& values) noexcept {
  std::memcpy(to, &values, sizeof values);
}

}  // namespace AudioConversion

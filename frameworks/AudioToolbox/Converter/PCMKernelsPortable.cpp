// Four samples at a time, for the sample formats that devices and hosts use most: 32-bit floats and 16-bit integers.

#include <AudioToolbox/Converter/PCMKernels.h>
#include <AudioToolbox/Converter/PortableVector.h>
#include <AudioToolbox/Converter/SampleCodec.h>

#include <algorithm>
#include <bit>

namespace AudioConversion {
namespace {

using Floats = PortableVector<float>;
using Integers = PortableVector<int32_t>;

constexpr SampleEncoding Int16{.kind = SampleKind::SignedInteger, .bits = 16, .containerBytes = 2};

float loadOne16(const std::byte* at) noexcept {
  return workFromInteger<float>(loadInteger<2, false>(IntegerPlace(Int16), at));
}

void storeOne16(std::byte* at, float value) noexcept {
  storeInteger<2, false>(IntegerPlace(Int16), at, integerFromReal(static_cast<double>(value), 16));
}

Floats fromLeftJustified(Integers values) noexcept {
  return __builtin_convertvector(values, Floats) * 0x1p-31f;
}

// The counterpart of integerFromReal: adding 1.5 * 2^23 leaves no room for a fraction. The integer stands in the low 16
// bits, what is above is of no use.
Integers round16(Floats values) noexcept {
  const Floats scaled = values * 32768.0f;
  const Floats ordered = scaled == scaled ? scaled : Floats{};
  const Floats below = ordered < 32767.0f ? ordered : Floats{} + 32767.0f;
  const Floats held = below > -32768.0f ? below : Floats{} - 32768.0f;
  return std::bit_cast<Integers>(held + 12582912.0f);
}

void readStereo16(const std::byte* in, size_t frames, float* left, float* right) {
  size_t i = 0;
  for (; frames - i >= 4; i += 4) {
    const Integers pairs = loadVector<int32_t>(in + 4 * i);
    storeVector(left + i, fromLeftJustified(pairs << 16));
    storeVector(right + i, fromLeftJustified(pairs & ~0xFFFF));
  }
  for (; i < frames; ++i) {
    left[i] = loadOne16(in + 4 * i);
    right[i] = loadOne16(in + 4 * i + 2);
  }
}

void writeStereo16(const float* left, const float* right, size_t frames, std::byte* out) {
  size_t i = 0;
  for (; frames - i >= 4; i += 4) {
    const Integers l = round16(loadVector<float>(left + i));
    const Integers r = round16(loadVector<float>(right + i));
    storeVector(out + 4 * i, (l & 0xFFFF) | (r << 16));
  }
  for (; i < frames; ++i) {
    storeOne16(out + 4 * i, left[i]);
    storeOne16(out + 4 * i + 2, right[i]);
  }
}

void readRun32(const std::byte* in, size_t samples, float* out) {
  std::copy_n(in, samples * sizeof(float), reinterpret_cast<std::byte*>(out));
}

void writeRun32(const float* in, size_t samples, std::byte* out) {
  std::copy_n(reinterpret_cast<const std::byte*>(in), samples * sizeof(float), out);
}

void readStereo32(const std::byte* in, size_t frames, float* left, float* right) {
  size_t i = 0;
  for (; frames - i >= 4; i += 4) {
    const Floats a = loadVector<float>(in + 8 * i);
    const Floats b = loadVector<float>(in + 8 * i + 16);
    storeVector(left + i, __builtin_shufflevector(a, b, 0, 2, 4, 6));
    storeVector(right + i, __builtin_shufflevector(a, b, 1, 3, 5, 7));
  }
  for (; i < frames; ++i) {
    left[i] = loadReal<float, false>(in + 8 * i);
    right[i] = loadReal<float, false>(in + 8 * i + 4);
  }
}

void writeStereo32(const float* left, const float* right, size_t frames, std::byte* out) {
  size_t i = 0;
  for (; frames - i >= 4; i += 4) {
    const Floats l = loadVector<float>(left + i);
    const Floats r = loadVector<float>(right + i);
    storeVector(out + 8 * i, __builtin_shufflevector(l, r, 0, 4, 1, 5));
    storeVector(out + 8 * i + 16, __builtin_shufflevector(l, r, 2, 6, 3, 7));
  }
  for (; i < frames; ++i) {
    storeReal<float, false>(out + 8 * i, left[i]);
    storeReal<float, false>(out + 8 * i + 4, right[i]);
  }
}

}  // namespace

const PCMKernels<float>* portableFloatKernels() noexcept {
  using Entry = PCMKernels<float>::Entry;
  static constexpr PCMKernels<float> Kernels{{Entry{nullptr, &readStereo16, nullptr, &writeStereo16}, Entry{}, Entry{},
                                              Entry{&readRun32, &readStereo32, &writeRun32, &writeStereo32}}};
  // In memory, the samples are little-endian.
  return std::endian::native == std::endian::little ? &Kernels : nullptr;
}

}  // namespace AudioConversion

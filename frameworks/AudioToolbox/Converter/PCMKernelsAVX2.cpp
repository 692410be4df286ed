// Eight samples at a time. A vector of working values travels as __m256 whatever it holds, so that the shuffles are
// written once.

#include <AudioToolbox/Converter/PCMKernels.h>
#include <AudioToolbox/Converter/SampleCodec.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace AudioConversion {

#if defined(__x86_64__)
namespace {

// The target is named function by function: a file-wide option would leak into the inline functions of the standard
// headers.
#define AVX2_FUNCTION __attribute__((target("avx2,fma")))
#define AVX2_INLINE __attribute__((target("avx2,fma"), always_inline)) static inline

template <CommonFormat Format>
inline constexpr unsigned Bits = Format == CommonFormat::Int16   ? 16
                                 : Format == CommonFormat::Int24 ? 24
                                                                 : 32;

template <CommonFormat Format>
inline constexpr unsigned Bytes = Bits<Format> / 8;

// Vectors of 24-bit samples are moved as 16-byte pieces of which 12 bytes count; the four bytes past the end must
// belong to samples that are still to come.
template <CommonFormat Format>
inline constexpr size_t SamplesPastEnd = Format == CommonFormat::Int24 ? 2 : 0;

template <CommonFormat Format>
SampleEncoding encodingOf() noexcept {
  return {.kind = Format == CommonFormat::Float32 ? SampleKind::Float : SampleKind::SignedInteger,
          .bits = Bits<Format>,
          .containerBytes = Bytes<Format>};
}

template <CommonFormat Format, typename Work>
Work loadOne(const std::byte* at) noexcept {
  if constexpr (Format == CommonFormat::Float32) {
    return loadReal<float, false>(at);
  } else {
    return workFromInteger<Work>(loadInteger<Bytes<Format>, false>(IntegerPlace(encodingOf<Format>()), at));
  }
}

template <CommonFormat Format, typename Work>
void storeOne(std::byte* at, Work value) noexcept {
  if constexpr (Format == CommonFormat::Float32) {
    storeReal<float, false>(at, value);
  } else {
    storeInteger<Bytes<Format>, false>(IntegerPlace(encodingOf<Format>()), at,
                                       integerFromWork<Work>(value, Bits<Format>));
  }
}

AVX2_INLINE __m128i load128(const std::byte* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

template <CommonFormat Format>
AVX2_INLINE __m256i loadLeftJustified(const std::byte* at) {
  if constexpr (Format == CommonFormat::Int16) {
    return _mm256_slli_epi32(_mm256_cvtepi16_epi32(load128(at)), 16);
  } else if constexpr (Format == CommonFormat::Int24) {
    const __m256i bytes = _mm256_inserti128_si256(_mm256_castsi128_si256(load128(at)), load128(at + 12), 1);
    const __m256i order = _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11,  //
                                           -1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11);
    return _mm256_shuffle_epi8(bytes, order);
  } else {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
  }
}

template <CommonFormat Format, typename Work>
AVX2_INLINE __m256 loadWork(const std::byte* at) {
  if constexpr (Format == CommonFormat::Float32) {
    return _mm256_loadu_ps(reinterpret_cast<const float*>(at));
  } else if constexpr (std::is_same_v<Work, int32_t>) {
    return _mm256_castsi256_ps(loadLeftJustified<Format>(at));
  } else {
    return _mm256_mul_ps(_mm256_cvtepi32_ps(loadLeftJustified<Format>(at)), _mm256_set1_ps(0x1p-31f));
  }
}

template <typename Work>
AVX2_INLINE __m256 loadEight(const Work* from) {
  return _mm256_loadu_ps(reinterpret_cast<const float*>(from));
}

template <typename Work>
AVX2_INLINE void storeEight(Work* to, __m256 values) {
  _mm256_storeu_ps(reinterpret_cast<float*>(to), values);
}

// The counterpart of integerFromReal. The conversion gives the lowest integer for everything out of range, so only the
// upper limit needs help, and the lower one where no saturating pack follows. `HasNaN` may be false where there is
// none.
template <CommonFormat Format, bool HasNaN = true>
AVX2_INLINE __m256i roundReal(__m256 value) {
  constexpr float Limit = static_cast<float>(uint32_t{1} << (Bits<Format> - 1));
  const __m256 scaled = _mm256_mul_ps(value, _mm256_set1_ps(Limit));
  const __m256 ordered = HasNaN ? _mm256_and_ps(scaled, _mm256_cmp_ps(scaled, scaled, _CMP_ORD_Q)) : scaled;
  if constexpr (Format == CommonFormat::Int32) {
    const __m256 tooLarge = _mm256_cmp_ps(ordered, _mm256_set1_ps(Limit), _CMP_GE_OQ);
    return _mm256_xor_si256(_mm256_cvtps_epi32(ordered), _mm256_castps_si256(tooLarge));
  } else if constexpr (Format == CommonFormat::Int24) {
    const __m256 held = _mm256_max_ps(_mm256_min_ps(ordered, _mm256_set1_ps(Limit - 1)), _mm256_set1_ps(-Limit));
    return _mm256_cvtps_epi32(held);
  } else {
    return _mm256_cvtps_epi32(_mm256_min_ps(ordered, _mm256_set1_ps(Limit - 1)));
  }
}

// The counterpart of integerFromInteger.
template <CommonFormat Format>
AVX2_INLINE __m256i roundInteger(__m256i value) {
  if constexpr (Format == CommonFormat::Int32) {
    return value;
  } else {
    constexpr int Shift = 32 - static_cast<int>(Bits<Format>);
    constexpr int32_t Half = int32_t{1} << (Shift - 1);
    const __m256i held = _mm256_min_epi32(value, _mm256_set1_epi32(std::numeric_limits<int32_t>::max() - Half));
    const __m256i tieBreak = _mm256_and_si256(_mm256_srai_epi32(held, Shift), _mm256_set1_epi32(1));
    return _mm256_srai_epi32(_mm256_add_epi32(_mm256_add_epi32(held, _mm256_set1_epi32(Half - 1)), tieBreak), Shift);
  }
}

template <CommonFormat Format, typename Work, bool HasNaN = true>
AVX2_INLINE __m256i roundWork(__m256 value) {
  if constexpr (std::is_same_v<Work, int32_t>) {
    return roundInteger<Format>(_mm256_castps_si256(value));
  } else {
    return roundReal<Format, HasNaN>(value);
  }
}

AVX2_INLINE void storeEight24(std::byte* at, __m256i values) {
  const __m256i order = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                         0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const __m256i bytes = _mm256_shuffle_epi8(values, order);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at), _mm256_castsi256_si128(bytes));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 12), _mm256_extracti128_si256(bytes, 1));
}

// Sixteen consecutive samples.
template <CommonFormat Format, typename Work>
AVX2_INLINE void storeSixteen(std::byte* at, __m256 first, __m256 second) {
  if constexpr (Format == CommonFormat::Float32) {
    _mm256_storeu_ps(reinterpret_cast<float*>(at), first);
    _mm256_storeu_ps(reinterpret_cast<float*>(at) + 8, second);
  } else {
    const __m256i a = roundWork<Format, Work>(first);
    const __m256i b = roundWork<Format, Work>(second);
    if constexpr (Format == CommonFormat::Int16) {
      const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), packed);
    } else if constexpr (Format == CommonFormat::Int24) {
      storeEight24(at, a);
      storeEight24(at + 24, b);
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), a);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(at) + 1, b);
    }
  }
}

template <CommonFormat Format, typename Work>
AVX2_FUNCTION void readRun(const std::byte* in, size_t samples, Work* out) {
  size_t i = 0;
  for (; samples - i >= 8 + SamplesPastEnd<Format>; i += 8) {
    storeEight(out + i, loadWork<Format, Work>(in + i * Bytes<Format>));
  }
  for (; i < samples; ++i) out[i] = loadOne<Format, Work>(in + i * Bytes<Format>);
}

template <CommonFormat Format, typename Work>
AVX2_FUNCTION void readStereo(const std::byte* in, size_t frames, Work* left, Work* right) {
  constexpr size_t FrameBytes = 2 * Bytes<Format>;
  size_t i = 0;
  for (; frames - i >= 8 + SamplesPastEnd<Format>; i += 8) {
    const __m256 a = loadWork<Format, Work>(in + i * FrameBytes);
    const __m256 b = loadWork<Format, Work>(in + i * FrameBytes + 8 * Bytes<Format>);
    const __m256d evens = _mm256_castps_pd(_mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
    const __m256d odds = _mm256_castps_pd(_mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
    storeEight(left + i, _mm256_castpd_ps(_mm256_permute4x64_pd(evens, _MM_SHUFFLE(3, 1, 2, 0))));
    storeEight(right + i, _mm256_castpd_ps(_mm256_permute4x64_pd(odds, _MM_SHUFFLE(3, 1, 2, 0))));
  }
  for (; i < frames; ++i) {
    left[i] = loadOne<Format, Work>(in + i * FrameBytes);
    right[i] = loadOne<Format, Work>(in + i * FrameBytes + Bytes<Format>);
  }
}

template <CommonFormat Format, typename Work>
AVX2_FUNCTION void writeRun(const Work* in, size_t samples, std::byte* out) {
  size_t i = 0;
  for (; samples - i >= 16 + SamplesPastEnd<Format>; i += 16) {
    storeSixteen<Format, Work>(out + i * Bytes<Format>, loadEight(in + i), loadEight(in + i + 8));
  }
  for (; i < samples; ++i) storeOne<Format, Work>(out + i * Bytes<Format>, in[i]);
}

// Whether there is a NaN in sixteen frames: one comparison looks at both sides.
AVX2_INLINE bool haveNaN(const float* left, const float* right) {
  const __m256 first = _mm256_cmp_ps(loadEight(left), loadEight(right), _CMP_UNORD_Q);
  const __m256 second = _mm256_cmp_ps(loadEight(left + 8), loadEight(right + 8), _CMP_UNORD_Q);
  return _mm256_movemask_ps(_mm256_or_ps(first, second)) != 0;
}

// Eight frames without a NaN, whose sides are packed before they are interleaved: half the shuffles.
template <typename Work>
AVX2_INLINE __m256i roundFrames16(const Work* left, const Work* right) {
  const __m256i order = _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15,  //
                                         0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
  const __m256i l = roundWork<CommonFormat::Int16, Work, false>(loadEight(left));
  const __m256i r = roundWork<CommonFormat::Int16, Work, false>(loadEight(right));
  return _mm256_shuffle_epi8(_mm256_packs_epi32(l, r), order);
}

template <typename Work>
void storeFrames16(const Work* left, const Work* right, size_t frames, std::byte* out) noexcept {
  for (size_t i = 0; i < frames; ++i) {
    storeOne<CommonFormat::Int16, Work>(out + 4 * i, left[i]);
    storeOne<CommonFormat::Int16, Work>(out + 4 * i + 2, right[i]);
  }
}

template <typename Work>
AVX2_FUNCTION void writeStereo16(const Work* left, const Work* right, size_t frames, std::byte* out) {
  size_t i = 0;
  for (; frames - i >= 16; i += 16) {
    if constexpr (std::is_same_v<Work, float>) {
      // Sound has none. To make sure of it once costs half of what setting each to 0 would.
      if (haveNaN(left + i, right + i)) [[unlikely]] {
        storeFrames16(left + i, right + i, 16, out + 4 * i);
        continue;
      }
    }
    const __m256i first = roundFrames16(left + i, right + i);
    const __m256i second = roundFrames16(left + i + 8, right + i + 8);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 4 * i), first);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 4 * i + 32), second);
  }
  storeFrames16(left + i, right + i, frames - i, out + 4 * i);
}

template <CommonFormat Format, typename Work>
AVX2_FUNCTION void writeStereo(const Work* left, const Work* right, size_t frames, std::byte* out) {
  constexpr size_t FrameBytes = 2 * Bytes<Format>;
  size_t i = 0;
  for (; frames - i >= 8 + SamplesPastEnd<Format>; i += 8) {
    const __m256 l = loadEight(left + i);
    const __m256 r = loadEight(right + i);
    const __m256 lows = _mm256_unpacklo_ps(l, r);
    const __m256 highs = _mm256_unpackhi_ps(l, r);
    storeSixteen<Format, Work>(out + i * FrameBytes, _mm256_permute2f128_ps(lows, highs, 0x20),
                               _mm256_permute2f128_ps(lows, highs, 0x31));
  }
  for (; i < frames; ++i) {
    storeOne<Format, Work>(out + i * FrameBytes, left[i]);
    storeOne<Format, Work>(out + i * FrameBytes + Bytes<Format>, right[i]);
  }
}

template <CommonFormat Format, typename Work>
constexpr typename PCMKernels<Work>::Entry entry() noexcept {
  return {&readRun<Format, Work>, &readStereo<Format, Work>, &writeRun<Format, Work>,
          Format == CommonFormat::Int16 ? &writeStereo16<Work> : &writeStereo<Format, Work>};
}

}  // namespace

const PCMKernels<float>* avx2FloatKernels() noexcept {
  static constexpr PCMKernels<float> Kernels{{entry<CommonFormat::Int16, float>(), entry<CommonFormat::Int24, float>(),
                                              entry<CommonFormat::Int32, float>(),
                                              entry<CommonFormat::Float32, float>()}};
  return &Kernels;
}

const PCMKernels<int32_t>* avx2IntegerKernels() noexcept {
  static constexpr PCMKernels<int32_t> Kernels{{entry<CommonFormat::Int16, int32_t>(),
                                                entry<CommonFormat::Int24, int32_t>(),
                                                entry<CommonFormat::Int32, int32_t>(), PCMKernels<int32_t>::Entry{}}};
  return &Kernels;
}

#else

const PCMKernels<float>* avx2FloatKernels() noexcept {
  return nullptr;
}
const PCMKernels<int32_t>* avx2IntegerKernels() noexcept {
  return nullptr;
}

#endif

}  // namespace AudioConversion

#include <AudioToolbox/Converter/VectorKernels.h>

#include <cmath>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace AudioConversion {

#if defined(__x86_64__)
namespace {

#define AVX2_FUNCTION __attribute__((target("avx2,fma")))
#define AVX2_INLINE __attribute__((target("avx2,fma"), always_inline)) static inline

AVX2_INLINE double sumOf(__m256d values) {
  const __m128d two = _mm_add_pd(_mm256_castpd256_pd128(values), _mm256_extractf128_pd(values, 1));
  return _mm_cvtsd_f64(_mm_add_sd(two, _mm_unpackhi_pd(two, two)));
}

// g++ would rather fetch a vector again for each of its uses, and the loop below lives on fetching little.
AVX2_INLINE __m256 loadOnce(const float* from) {
  __m256 values = _mm256_load_ps(from);
  asm("" : "+x"(values));
  return values;
}

AVX2_INLINE void storeSums(__m256 a, __m256 b, __m256 c, __m256 d, float* out) {
  const __m256 sums = _mm256_hadd_ps(_mm256_hadd_ps(a, b), _mm256_hadd_ps(c, d));
  _mm_storeu_ps(out, _mm_add_ps(_mm256_castps256_ps128(sums), _mm256_extractf128_ps(sums, 1)));
}

AVX2_FUNCTION void filterOne(const FilterRun<float>& run, const float* in, float* out) {
  static_assert(FilterGroup<float>::kMostFrames == 4);
  const size_t reach = run.reach;
  for (const FilterGroup<float>* group = run.groups; group != run.groups + run.count; ++group) {
    const float* const rowA = group->coefficients;
    const float* const rowB = rowA + reach;
    const float* const rowC = rowB + reach;
    const float* const rowD = rowC + reach;
    __m256 a = _mm256_setzero_ps(), b = a, c = a, d = a;
    for (size_t t = 0; t < reach; t += 8) {
      const __m256 samples = _mm256_loadu_ps(in + t);
      a = _mm256_fmadd_ps(samples, _mm256_load_ps(rowA + t), a);
      b = _mm256_fmadd_ps(samples, _mm256_load_ps(rowB + t), b);
      c = _mm256_fmadd_ps(samples, _mm256_load_ps(rowC + t), c);
      d = _mm256_fmadd_ps(samples, _mm256_load_ps(rowD + t), d);
    }
    storeSums(a, b, c, d, out);
    in += group->step();
    out += group->frames;
  }
}

AVX2_FUNCTION void filterTwo(const FilterRun<float>& run, const float* in0, const float* in1, float* out0,
                             float* out1) {
  static_assert(FilterGroup<float>::kMostFrames == 4);
  const size_t reach = run.reach;
  for (const FilterGroup<float>* group = run.groups; group != run.groups + run.count; ++group) {
    const float* const rowA = group->coefficients;
    const float* const rowB = rowA + reach;
    const float* const rowC = rowB + reach;
    const float* const rowD = rowC + reach;
    __m256 a0 = _mm256_setzero_ps(), b0 = a0, c0 = a0, d0 = a0;
    __m256 a1 = a0, b1 = a0, c1 = a0, d1 = a0;
    for (size_t t = 0; t < reach; t += 8) {
      const __m256 samples0 = _mm256_loadu_ps(in0 + t);
      const __m256 samples1 = _mm256_loadu_ps(in1 + t);
      const __m256 a = loadOnce(rowA + t);
      a0 = _mm256_fmadd_ps(samples0, a, a0);
      a1 = _mm256_fmadd_ps(samples1, a, a1);
      const __m256 b = loadOnce(rowB + t);
      b0 = _mm256_fmadd_ps(samples0, b, b0);
      b1 = _mm256_fmadd_ps(samples1, b, b1);
      const __m256 c = loadOnce(rowC + t);
      c0 = _mm256_fmadd_ps(samples0, c, c0);
      c1 = _mm256_fmadd_ps(samples1, c, c1);
      const __m256 d = loadOnce(rowD + t);
      d0 = _mm256_fmadd_ps(samples0, d, d0);
      d1 = _mm256_fmadd_ps(samples1, d, d1);
    }
    storeSums(a0, b0, c0, d0, out0);
    storeSums(a1, b1, c1, d1, out1);
    in0 += group->step();
    in1 += group->step();
    out0 += group->frames;
    out1 += group->frames;
  }
}

AVX2_FUNCTION void silenceNonFinite(float* samples, size_t count) {
  constexpr float Largest = std::numeric_limits<float>::max();
  const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
  size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 values = _mm256_loadu_ps(samples + i);
    const __m256 finite = _mm256_cmp_ps(_mm256_and_ps(values, magnitude), _mm256_set1_ps(Largest), _CMP_LE_OQ);
    _mm256_storeu_ps(samples + i, _mm256_and_ps(values, finite));
  }
  for (; i < count; ++i) samples[i] = std::abs(samples[i]) <= Largest ? samples[i] : 0.0f;
}

AVX2_FUNCTION PredictionKernels::Correlation correlate(const double* forward, const double* backward, size_t count) {
  __m256d evenCross = _mm256_setzero_pd(), oddCross = _mm256_setzero_pd();
  __m256d evenForward = _mm256_setzero_pd(), oddForward = _mm256_setzero_pd();
  __m256d evenBackward = _mm256_setzero_pd(), oddBackward = _mm256_setzero_pd();
  size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256d f0 = _mm256_loadu_pd(forward + i);
    const __m256d f1 = _mm256_loadu_pd(forward + i + 4);
    const __m256d b0 = _mm256_loadu_pd(backward + i);
    const __m256d b1 = _mm256_loadu_pd(backward + i + 4);
    evenCross = _mm256_fmadd_pd(f0, b0, evenCross);
    oddCross = _mm256_fmadd_pd(f1, b1, oddCross);
    evenForward = _mm256_fmadd_pd(f0, f0, evenForward);
    oddForward = _mm256_fmadd_pd(f1, f1, oddForward);
    evenBackward = _mm256_fmadd_pd(b0, b0, evenBackward);
    oddBackward = _mm256_fmadd_pd(b1, b1, oddBackward);
  }
  const __m256d energy =
      _mm256_add_pd(_mm256_add_pd(evenForward, oddForward), _mm256_add_pd(evenBackward, oddBackward));
  PredictionKernels::Correlation result{sumOf(_mm256_add_pd(evenCross, oddCross)), sumOf(energy)};
  for (; i < count; ++i) {
    result.cross += forward[i] * backward[i];
    result.energy += forward[i] * forward[i] + backward[i] * backward[i];
  }
  return result;
}

AVX2_FUNCTION void reflect(double* forward, double* backward, size_t count, double k) {
  const __m256d factor = _mm256_set1_pd(k);
  size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256d f0 = _mm256_loadu_pd(forward + i);
    const __m256d f1 = _mm256_loadu_pd(forward + i + 4);
    const __m256d b0 = _mm256_loadu_pd(backward + i);
    const __m256d b1 = _mm256_loadu_pd(backward + i + 4);
    _mm256_storeu_pd(forward + i, _mm256_fmadd_pd(factor, b0, f0));
    _mm256_storeu_pd(forward + i + 4, _mm256_fmadd_pd(factor, b1, f1));
    _mm256_storeu_pd(backward + i, _mm256_fmadd_pd(factor, f0, b0));
    _mm256_storeu_pd(backward + i + 4, _mm256_fmadd_pd(factor, f1, b1));
  }
  for (; i < count; ++i) {
    const double f = forward[i];
    forward[i] = f + k * backward[i];
    backward[i] = backward[i] + k * f;
  }
}

AVX2_FUNCTION void predict(const double* weights, double* next) {
  static_assert(PredictionKernels::kPredicted == 4 && PredictionKernels::kOrder % 4 == 0);
  const double* const past = next - PredictionKernels::kOrder;
  __m256d sum0 = _mm256_setzero_pd(), sum1 = _mm256_setzero_pd();
  __m256d sum2 = _mm256_setzero_pd(), sum3 = _mm256_setzero_pd();
  for (size_t i = 0; i < PredictionKernels::kOrder; i += 4) {
    const double* const columns = weights + 4 * i;
    sum0 = _mm256_fmadd_pd(_mm256_broadcast_sd(past + i), _mm256_loadu_pd(columns), sum0);
    sum1 = _mm256_fmadd_pd(_mm256_broadcast_sd(past + i + 1), _mm256_loadu_pd(columns + 4), sum1);
    sum2 = _mm256_fmadd_pd(_mm256_broadcast_sd(past + i + 2), _mm256_loadu_pd(columns + 8), sum2);
    sum3 = _mm256_fmadd_pd(_mm256_broadcast_sd(past + i + 3), _mm256_loadu_pd(columns + 12), sum3);
  }
  _mm256_storeu_pd(next, _mm256_add_pd(_mm256_add_pd(sum0, sum1), _mm256_add_pd(sum2, sum3)));
}

}  // namespace

const FilterKernels<float>* avx2FilterKernels() noexcept {
  static constexpr FilterKernels<float> Kernels{&filterOne, &filterTwo, &silenceNonFinite};
  return &Kernels;
}

const PredictionKernels* avx2PredictionKernels() noexcept {
  static constexpr PredictionKernels Kernels{&correlate, &reflect, &predict};
  return &Kernels;
}

#else

const FilterKernels<float>* avx2FilterKernels() noexcept {
  return nullptr;
}
const PredictionKernels* avx2PredictionKernels() noexcept {
  return nullptr;
}

#endif

}  // namespace AudioConversion

#include <AudioToolbox/VectorKernels.h>

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

AVX2_INLINE float sumOf(__m256 values) {
  const __m128 four = _mm_add_ps(_mm256_castps256_ps128(values), _mm256_extractf128_ps(values, 1));
  const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
  return _mm_cvtss_f32(_mm_add_ss(two, _mm_movehdup_ps(two)));
}

AVX2_INLINE double sumOf(__m256d values) {
  const __m128d two = _mm_add_pd(_mm256_castpd256_pd128(values), _mm256_extractf128_pd(values, 1));
  return _mm_cvtsd_f64(_mm_add_sd(two, _mm_unpackhi_pd(two, two)));
}

AVX2_INLINE void advance(FilterRun<float>& run) {
  run.frame += run.stepFrames;
  run.phase += run.stepPhases;
  if (run.phase >= run.phases) {
    run.phase -= run.phases;
    ++run.frame;
  }
}

AVX2_FUNCTION size_t filterOne(FilterRun<float>& state, const float* in, float* out, size_t frames) {
  FilterRun<float> run = state;
  const size_t pairedTaps = run.taps & ~size_t{15};
  size_t produced = 0;
  for (; produced < frames && run.frame <= run.lastFrame; ++produced) {
    const float* const row = run.rows + run.phase * run.taps;
    const float* const samples = in + run.frame;
    __m256 even = _mm256_setzero_ps();
    __m256 odd = _mm256_setzero_ps();
    size_t t = 0;
    for (; t < pairedTaps; t += 16) {
      even = _mm256_fmadd_ps(_mm256_loadu_ps(row + t), _mm256_loadu_ps(samples + t), even);
      odd = _mm256_fmadd_ps(_mm256_loadu_ps(row + t + 8), _mm256_loadu_ps(samples + t + 8), odd);
    }
    if (t < run.taps) even = _mm256_fmadd_ps(_mm256_loadu_ps(row + t), _mm256_loadu_ps(samples + t), even);
    out[produced] = sumOf(_mm256_add_ps(even, odd));
    advance(run);
  }
  state = run;
  return produced;
}

AVX2_FUNCTION size_t filterTwo(FilterRun<float>& state, const float* in0, const float* in1, float* out0, float* out1,
                               size_t frames) {
  FilterRun<float> run = state;
  const size_t pairedTaps = run.taps & ~size_t{15};
  size_t produced = 0;
  for (; produced < frames && run.frame <= run.lastFrame; ++produced) {
    const float* const row = run.rows + run.phase * run.taps;
    const float* const samples0 = in0 + run.frame;
    const float* const samples1 = in1 + run.frame;
    __m256 even0 = _mm256_setzero_ps();
    __m256 odd0 = _mm256_setzero_ps();
    __m256 even1 = _mm256_setzero_ps();
    __m256 odd1 = _mm256_setzero_ps();
    size_t t = 0;
    for (; t < pairedTaps; t += 16) {
      const __m256 even = _mm256_loadu_ps(row + t);
      const __m256 odd = _mm256_loadu_ps(row + t + 8);
      even0 = _mm256_fmadd_ps(even, _mm256_loadu_ps(samples0 + t), even0);
      even1 = _mm256_fmadd_ps(even, _mm256_loadu_ps(samples1 + t), even1);
      odd0 = _mm256_fmadd_ps(odd, _mm256_loadu_ps(samples0 + t + 8), odd0);
      odd1 = _mm256_fmadd_ps(odd, _mm256_loadu_ps(samples1 + t + 8), odd1);
    }
    if (t < run.taps) {
      const __m256 even = _mm256_loadu_ps(row + t);
      even0 = _mm256_fmadd_ps(even, _mm256_loadu_ps(samples0 + t), even0);
      even1 = _mm256_fmadd_ps(even, _mm256_loadu_ps(samples1 + t), even1);
    }
    out0[produced] = sumOf(_mm256_add_ps(even0, odd0));
    out1[produced] = sumOf(_mm256_add_ps(even1, odd1));
    advance(run);
  }
  state = run;
  return produced;
}

AVX2_FUNCTION void silenceNonFinite(float* samples, size_t count) {
  constexpr float kLargest = std::numeric_limits<float>::max();
  const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
  size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 values = _mm256_loadu_ps(samples + i);
    const __m256 finite = _mm256_cmp_ps(_mm256_and_ps(values, magnitude), _mm256_set1_ps(kLargest), _CMP_LE_OQ);
    _mm256_storeu_ps(samples + i, _mm256_and_ps(values, finite));
  }
  for (; i < count; ++i) samples[i] = std::abs(samples[i]) <= kLargest ? samples[i] : 0.0f;
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
  static constexpr FilterKernels<float> kKernels{&filterOne, &filterTwo, &silenceNonFinite};
  return &kKernels;
}

const PredictionKernels* avx2PredictionKernels() noexcept {
  static constexpr PredictionKernels kKernels{&correlate, &reflect, &predict};
  return &kKernels;
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

// Four-lane double vectors for the row loops of the kernels (GCC/Clang vector extensions).
//
// A row is walked in blocks of four columns; the last block of a row whose length is not a multiple of
// four is loaded with a neutral fill in its unused lanes and stored back partially, so every loop has one
// body. Comparisons give int64 lanes of 0 or -1: counting is an integer subtraction, selecting a bitwise
// blend, and nothing branches on the data.
//
// Part of the kernels' bodies, so included once per instruction set (no include guard): on x86-64-v3 a
// block is one AVX2 instruction, on the plain x86-64 baseline two SSE2 instructions.
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifndef QM_INLINE
#define QM_INLINE [[gnu::always_inline]] inline
// For lambdas whose bodies must be compiled into the function that calls them, for its instruction set.
#define QM_LAMBDA __attribute__((always_inline))
#endif

namespace quillmarsh::local::QM_ISA::lanes {

typedef double v4d __attribute__((vector_size(32)));
typedef std::int64_t v4l __attribute__((vector_size(32)));
constexpr std::size_t kLanes = 4;

QM_INLINE v4d splat(double a) { return v4d{a, a, a, a}; }
QM_INLINE v4l splat_int(std::int64_t a) { return v4l{a, a, a, a}; }

// The first k lanes from p (k <= 4), the others `fill`.
QM_INLINE v4d load(const double* p, std::size_t k, double fill) {
  v4d v;
  if (k == kLanes) {
    std::memcpy(&v, p, sizeof v);
  } else {
    v = splat(fill);
    for (std::size_t i = 0; i < k; ++i) v[i] = p[i];
  }
  return v;
}
QM_INLINE void store(double* p, v4d v, std::size_t k) {
  if (k == kLanes) std::memcpy(p, &v, sizeof v);
  else for (std::size_t i = 0; i < k; ++i) p[i] = v[i];
}

// mask ? a : b, lane by lane (every mask lane is 0 or -1). On AVX one blend, which picks by each lane's sign
// bit: the same lanes.
QM_INLINE v4d select(v4l mask, v4d a, v4d b) {
#if QM_ISA_AVX
  return (v4d)_mm256_blendv_pd((__m256d)b, (__m256d)a, (__m256d)mask);
#else
  return (v4d)(((v4l)a & mask) | ((v4l)b & ~mask));
#endif
}
QM_INLINE v4l valid(v4d x) { return x == x; }  // not NaN
QM_INLINE v4d abs(v4d x) { return (v4d)((v4l)x & splat_int(INT64_MAX)); }
// a > b ? a : b, lane by lane (b where either is NaN, and where they are equal, as for -0.0 against 0.0):
// exactly what the AVX max instruction returns for (a, b).
QM_INLINE v4d max(v4d a, v4d b) {
#if QM_ISA_AVX
  return (v4d)_mm256_max_pd((__m256d)a, (__m256d)b);
#else
  return select(a > b, a, b);
#endif
}
QM_INLINE v4d sqrt(v4d x) {
#if QM_ISA_AVX
  return (v4d)_mm256_sqrt_pd((__m256d)x);
#elif defined(__SSE2__)
  const __m128d lo = _mm_sqrt_pd(__m128d{x[0], x[1]}), hi = _mm_sqrt_pd(__m128d{x[2], x[3]});
  return v4d{lo[0], lo[1], hi[0], hi[1]};
#else
  return v4d{__builtin_sqrt(x[0]), __builtin_sqrt(x[1]), __builtin_sqrt(x[2]), __builtin_sqrt(x[3])};
#endif
}
// Exact for 0 <= x < 2^52, such as counts: x's bits under the exponent of 2^52, less 2^52.
QM_INLINE v4d small_to_double(v4l x) {
  return (v4d)(x | splat_int(0x4330000000000000)) - splat(4503599627370496.0);
}

// Natural logarithm of positive, finite, normal x, within an ulp: x = 2^k m with m in [sqrt(2)/2, sqrt(2)),
// f = m - 1, s = f / (2 + f), and log(1 + f) = 2s + 2s^3/3 + ... summed as a minimax polynomial in s^2.
QM_INLINE v4d log_positive(v4d x) {
  const v4l bits = (v4l)x;
  v4d m = (v4d)((bits & splat_int(0x000fffffffffffff)) | splat_int(0x3ff0000000000000));  // in [1, 2)
  v4d k = small_to_double(bits >> 52) - 1023.0;
  const v4l high = m > 1.4142135623730951;
  m = select(high, m * 0.5, m);
  k += select(high, splat(1.0), splat(0.0));
  const v4d f = m - 1.0, s = f / (2.0 + f), z = s * s, w = z * z;
  const v4d t1 = w * (3.999999999940941908e-01 + w * (2.222219843214978396e-01 + w * 1.531383769920937332e-01));
  const v4d t2 = z * (6.666666666666735130e-01 +
                      w * (2.857142874366239149e-01 + w * (1.818357216161805012e-01 + w * 1.479819860511658591e-01)));
  const v4d r = t1 + t2, hfsq = 0.5 * f * f;
  return k * 6.93147180369123816490e-01 - ((hfsq - (s * (hfsq + r) + k * 1.90821492927058770002e-10)) - f);
}

// Whether any lane of a mask is set: one test of the whole vector, not four lane extractions (it sits in
// the inner loop of every rolling kernel).
QM_INLINE bool any(v4l mask) {
#if QM_ISA_AVX
  return !_mm256_testz_si256((__m256i)mask, (__m256i)mask);
#elif defined(__SSE2__)
  const __m128i lo = __m128i{mask[0], mask[1]}, hi = __m128i{mask[2], mask[3]};
  return _mm_movemask_epi8(_mm_or_si128(lo, hi)) != 0;
#else
  return (mask[0] | mask[1] | mask[2] | mask[3]) != 0;
#endif
}

QM_INLINE double sum(v4d v) { return (v[0] + v[1]) + (v[2] + v[3]); }
QM_INLINE std::int64_t sum(v4l v) { return (v[0] + v[1]) + (v[2] + v[3]); }
QM_INLINE double max(v4d v) {
  double a = v[0] > v[1] ? v[0] : v[1], b = v[2] > v[3] ? v[2] : v[3];
  return a > b ? a : b;
}

// f(n, k) for the blocks of a row of N: k = 4 in the body, k < 4 once for the tail.
template <class F>
QM_INLINE void blocks(std::size_t N, F&& f) {
  std::size_t n = 0;
  for (; n + kLanes <= N; n += kLanes) f(n, kLanes);
  if (n < N) f(n, N - n);
}

}  // namespace quillmarsh::local::QM_ISA::lanes

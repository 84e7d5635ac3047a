// The kernels' bodies. kernels.cpp includes this file once per instruction set, with QM_ISA naming the
// namespace of that build (and the GCC target set around the inclusion); there is no include guard.
#include "lanes.hpp"

namespace quillmarsh::local::QM_ISA {

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline bool ok(double v) { return !std::isnan(v); }
}  // namespace

namespace {
// Running sums lose precision as values pass through them: a large value leaving the window takes its
// rounding error with it only in part, and a level that drifts away from the shift swamps the spread.
// Each column therefore also keeps the mass that has gone in and out since its sums were last computed
// exactly (absolute shifted values for sums and means, their squares for spreads); once that exceeds
// kReanchor times what the window itself holds (squared for squares), the column's sums are recomputed
// from its window, about its mean. That keeps every rolling value within a few hundred ulps of the
// window's own magnitude, costs nothing on well-behaved data (the mass grows by two values a day against
// a window of w), and one O(w) pass each time an outlier leaves.
constexpr double kReanchor = 256.0;

// Running sums of the valid values in each column's window. Each row is one pass of four-lane blocks: the
// value leaving the window out, today's in, and `cell(value, s1, s2, count, shift)` gives the outputs.
// Centred: the outputs are spreads, whose precision is that of the centred sum of squares, and the values
// are shifted by a per-column level (the first value of a window that was empty, later the mean of the
// window at each re-anchoring) so that the squares do not swamp the spread. Otherwise the outputs are sums
// and means, whose precision is that of the plain sum, and nothing is shifted: a shift far from today's
// values would only cost digits.
template <bool Centred>
class Moments {
 public:
  template <class F>
  static void run(const double* x, double* out, size_t T, size_t N, int w, F&& cell) {
    std::vector<double> state(5 * N, 0.0);
    for (size_t t = 0; t < T; ++t) {
      if (t >= size_t(w)) row<true>(x, t, N, size_t(w), out + t * N, state.data(), cell);
      else row<false>(x, t, N, size_t(w), out + t * N, state.data(), cell);
    }
  }

 private:
  // State per column: the shift (spreads only), s1, s2 (spreads) or sum |d| over the window (sums), the
  // count, and the mass through the sums since they were last exact: |d| for sums, d^2 for spreads.
  template <bool Leaving, class F>
  QM_INLINE static void row(const double* x, size_t t, size_t N, size_t w, double* o, double* state, F& cell) {
    using namespace lanes;
    double* k = state;
    double* a1 = state + N;
    double* a2 = state + 2 * N;  // s2 for spreads, sum |d| for sums
    double* cnt = state + 3 * N;
    double* mass = state + 4 * N;
    const double* now = x + t * N;
    const v4d zero = splat(0.0), one = splat(1.0);
    const double limit = Centred ? kReanchor * kReanchor : kReanchor;
    blocks(N, [&](size_t n, size_t q) QM_LAMBDA {
      v4d s1 = load(a1 + n, q, 0.0), s2 = load(a2 + n, q, 0.0), c = load(cnt + n, q, 0.0);
      v4d m = load(mass + n, q, 0.0), kn = Centred ? load(k + n, q, 0.0) : zero;
      if constexpr (Leaving) {
        const v4d v = load(x + (t - w) * N + n, q, kNaN);
        const v4l there = valid(v);
        const v4d d = select(there, v - kn, zero);
        s1 -= d; s2 -= Centred ? d * d : abs(d); m += Centred ? d * d : abs(d); c -= select(there, one, zero);
      }
      // An empty window restarts from exact zeros, and a spread's shift at its first value.
      const v4l empty = c == 0.0;
      s1 = select(empty, zero, s1);
      s2 = select(empty, zero, s2);
      m = select(empty, zero, m);
      const v4d v = load(now + n, q, kNaN);
      const v4l there = valid(v);
      if constexpr (Centred) kn = select(empty & there, v, kn);
      const v4d d = select(there, v - kn, zero);
      s1 += d; s2 += Centred ? d * d : abs(d); m += Centred ? d * d : abs(d); c += select(there, one, zero);
      // What the window holds: its centred sum of squares (times the count) or its sum |d|.
      const v4l stale = Centred ? m * c > limit * (s2 * c - s1 * s1) : m > limit * s2;
      if constexpr (Centred) store(k + n, kn, q);
      store(a1 + n, s1, q); store(a2 + n, s2, q); store(cnt + n, c, q); store(mass + n, m, q);
      if (any(stale)) [[unlikely]] {
        // Fixed up in the state arrays, out of the common path, so that the sums never have to leave the
        // registers for it.
        for (size_t i = 0; i < q; ++i)
          if (stale[i]) anchor(x, t, N, w, n + i, k[n + i], a1[n + i], a2[n + i], cnt[n + i], mass[n + i]);
        s1 = load(a1 + n, q, 0.0); s2 = load(a2 + n, q, 0.0); c = load(cnt + n, q, 0.0);
        if constexpr (Centred) kn = load(k + n, q, 0.0);
      }
      store(o + n, cell(v, s1, s2, c, kn), q);
    });
  }

  // The sums of column n's window ending at t, computed afresh about the window's mean.
  static void anchor(const double* x, size_t t, size_t N, size_t w, size_t n, double& k, double& s1, double& s2,
                     double& c, double& m) {
    const size_t lo = t + 1 >= w ? t + 1 - w : 0;
    double sum = 0.0, count = 0.0;
    for (size_t j = lo; j <= t; ++j) {
      const double v = x[j * N + n];
      if (v == v) { sum += v; count += 1.0; }
    }
    if (Centred && count > 0.0) k = sum / count;
    s1 = s2 = 0.0;
    for (size_t j = lo; j <= t; ++j) {
      const double v = x[j * N + n];
      if (v == v) { s1 += v - k; s2 += Centred ? (v - k) * (v - k) : std::fabs(v); }
    }
    c = count;
    m = s2;
  }
};

// Sample variance of windows and whether each is degenerate: a variance this small relative to the
// squared deviations is rounding residue of a constant window.
QM_INLINE lanes::v4d window_var(lanes::v4d s1, lanes::v4d s2, lanes::v4d c, lanes::v4l& degenerate) {
  using namespace lanes;
  const v4d cc = select(c > 1.0, c, splat(2.0));
  v4d v = (s2 * cc - s1 * s1) / (cc * (cc - 1.0));
  v = select(v > 0.0, v, splat(0.0));
  degenerate = ~(v * cc > 1e-14 * s2);
  return v;
}
}  // namespace

using lanes::v4d;

void ts_sum(const double* x, double* out, size_t T, size_t N, int w) {
  const double mp = min_periods(w, false);
  Moments<false>::run(x, out, T, N, w, [mp](v4d v, v4d s1, v4d, v4d c, v4d) QM_LAMBDA {
    return lanes::select(lanes::valid(v) & (c >= mp), s1, lanes::splat(kNaN));  // sums are not shifted
  });
}

void ts_mean(const double* x, double* out, size_t T, size_t N, int w) {
  const double mp = min_periods(w, false);
  Moments<false>::run(x, out, T, N, w, [mp](v4d v, v4d s1, v4d, v4d c, v4d) QM_LAMBDA {
    using namespace lanes;
    const v4d mean = s1 / select(c > 0.0, c, splat(1.0));
    return select(valid(v) & (c >= mp), mean, splat(kNaN));
  });
}

void ts_std(const double* x, double* out, size_t T, size_t N, int w) {
  const double mp = min_periods(w, true);
  Moments<true>::run(x, out, T, N, w, [mp](v4d v, v4d s1, v4d s2, v4d c, v4d) QM_LAMBDA {
    using namespace lanes;
    v4l degenerate;
    const v4d var = window_var(s1, s2, c, degenerate);
    const v4d sd = select(degenerate, splat(0.0), lanes::sqrt(var));
    return select(valid(v) & (c >= mp), sd, splat(kNaN));
  });
}

void ts_zscore(const double* x, double* out, size_t T, size_t N, int w) {
  const double mp = min_periods(w, true);
  Moments<true>::run(x, out, T, N, w, [mp](v4d v, v4d s1, v4d s2, v4d c, v4d k) QM_LAMBDA {
    using namespace lanes;
    v4l degenerate;
    const v4d var = window_var(s1, s2, c, degenerate);
    const v4d mean_dev = s1 / select(c > 0.0, c, splat(1.0));
    const v4d z = ((v - k) - mean_dev) / lanes::sqrt(select(degenerate, splat(1.0), var));
    return select(valid(v) & (c >= mp) & ~degenerate, z, splat(kNaN));
  });
}

namespace {
// Van Herk / Gil-Werman: with the days cut into blocks of w, the window ending at t spans the tail of the
// previous block and the head of its own, so its extreme is better(suffix[t-w+1], prefix[t]), the suffix
// extremes taken within the previous block and the prefix extremes within t's. One block of suffixes is
// kept at a time; three comparisons per cell, no branch, whole rows at a time. Missing values count as
// +inf (min) or -inf (max).
template <bool IsMin>
void ts_extreme(const double* x, double* out, size_t T, size_t N, int w) {
  const double fill = IsMin ? std::numeric_limits<double>::infinity() : -std::numeric_limits<double>::infinity();
  auto pick = [](double a, double b) { return IsMin ? (a < b ? a : b) : (a > b ? a : b); };
  const size_t W = size_t(w);
  const double mp = min_periods(w, false);
  std::vector<double> suffix_v(std::min(W, T) * N), prefix_v(N), count_v(N, 0.0);
  double* __restrict prefix = prefix_v.data();
  double* __restrict count = count_v.data();
  for (size_t b = 0; b < T; b += W) {
    const size_t e = std::min(T, b + W);
    for (size_t t = b; t < e; ++t) {
      const double* __restrict row = x + t * N;
      double* __restrict o = out + t * N;
      for (size_t n = 0; n < N; ++n) {
        const double v = row[n] == row[n] ? row[n] : fill;
        prefix[n] = t == b ? v : pick(v, prefix[n]);
        count[n] += row[n] == row[n] ? 1.0 : 0.0;
      }
      if (t >= W) {
        const double* __restrict old = x + (t - W) * N;
        for (size_t n = 0; n < N; ++n) count[n] -= old[n] == old[n] ? 1.0 : 0.0;
      }
      // The window starts in the previous block unless it is t's whole block or cut short by the first day.
      const double* __restrict h = b > 0 && t + 1 < b + W ? suffix_v.data() + (t + 1 - b) * N : nullptr;
      for (size_t n = 0; n < N; ++n) {
        double r = h ? pick(h[n], prefix[n]) : prefix[n];
        r = count[n] < mp ? kNaN : r;
        o[n] = row[n] == row[n] ? r : kNaN;
      }
    }
    if (e == T) break;
    for (size_t t = e; t-- > b;) {  // this block's suffixes, for the next
      const double* __restrict row = x + t * N;
      double* __restrict h = suffix_v.data() + (t - b) * N;
      for (size_t n = 0; n < N; ++n) {
        const double v = row[n] == row[n] ? row[n] : fill;
        h[n] = t + 1 == e ? v : pick(v, h[n + N]);
      }
    }
  }
}
}  // namespace

void ts_min(const double* x, double* out, size_t T, size_t N, int w) { ts_extreme<true>(x, out, T, N, w); }
void ts_max(const double* x, double* out, size_t T, size_t N, int w) { ts_extreme<false>(x, out, T, N, w); }

namespace {
// Rolling rank of R consecutive days t0 .. t0+R-1. Their windows overlap in all but R - 1 rows, so each
// row of the union is loaded once and compared with the R days it belongs to. `count` holds the number of
// valid values in each column's window of day t0 - 1 and is left at that of day t0 + R - 1.
template <int R>
QM_INLINE void rank_days(const double* x, double* out, size_t N, size_t t0, int w, double mp, double* count) {
  using namespace lanes;
  const size_t W = size_t(w);
  const size_t lo = t0 + 1 >= W ? t0 + 1 - W : 0;                 // first row of the first day's window
  const size_t common = t0 + R >= W ? t0 + R - W : 0;            // first row in every day's window
  blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
    // twice[i] counts 2 for each value of day i's window below c[i] and 1 for each equal to it.
    v4d c[R], cnt[R];
    v4l twice[R];
    v4d running = load(count + n, k, 0.0);
    for (int i = 0; i < R; ++i) {
      const size_t t = t0 + i;
      c[i] = load(x + t * N + n, k, kNaN);
      running += select(valid(c[i]), splat(1.0), splat(0.0));
      if (t >= W) running -= select(valid(load(x + (t - W) * N + n, k, kNaN)), splat(1.0), splat(0.0));
      cnt[i] = running;
      twice[i] = splat_int(0);
    }
    store(count + n, running, k);
    auto edge = [&](size_t j) QM_LAMBDA {  // a row that only some of the days' windows hold
      v4d v = load(x + j * N + n, k, kNaN);
      for (int i = 0; i < R; ++i) {
        const v4l in = splat_int(j <= t0 + i && j + W > t0 + i ? -1 : 0);
        twice[i] -= ((v < c[i]) & in) + ((v <= c[i]) & in);
      }
    };
    const size_t mid = std::max(lo, common);
    for (size_t j = lo; j < mid; ++j) edge(j);
    const double* p = x + mid * N + n;
    for (size_t j = mid; j <= t0; ++j, p += N) {
      v4d v = load(p, k, kNaN);
      for (int i = 0; i < R; ++i) twice[i] -= (v < c[i]) + (v <= c[i]);
    }
    for (size_t j = std::max(mid, t0 + 1); j < t0 + R; ++j) edge(j);
    for (int i = 0; i < R; ++i) {
      v4d r = (small_to_double(twice[i]) - 1.0) / (2.0 * (cnt[i] - 1.0));
      r = select(cnt[i] <= 1.0, splat(0.5), r);
      store(out + (t0 + i) * N + n, select(valid(c[i]) & (cnt[i] >= mp), r, splat(kNaN)), k);
    }
  });
}
}  // namespace

void ts_rank(const double* x, double* out, size_t T, size_t N, int w) {
  const double mp = min_periods(w, false);
  // Valid values in each column's window, kept as the window moves; the pass over the window then only
  // counts the values below and equal to each day's.
  std::vector<double> count(N, 0.0);
  size_t t = 0;
  for (; t + 4 <= T; t += 4) rank_days<4>(x, out, N, t, w, mp, count.data());
  for (; t < T; ++t) rank_days<1>(x, out, N, t, w, mp, count.data());
}

void ts_decay_linear(const double* x, double* out, size_t T, size_t N, int w, int minp) {
  // num_t = sum_j (w - j) x_{t-j}; num_{t+1} = num_t - sum_t + w * x_{t+1}, with sum_t the plain window
  // sum; the same recurrence on the indicator of validity gives the normaliser (exact: small integers).
  // One pass a row. num and sum are re-anchored as the rolling sums are (see Moments): computed afresh
  // from the window once the mass through them exceeds kReanchor times the window's own.
  using namespace lanes;
  std::vector<double> state(7 * N, 0.0);
  double* num = state.data();
  double* sum = num + N;
  double* wnum = sum + N;
  double* wsum = wnum + N;
  double* count = wsum + N;
  double* mass = count + N;
  double* gross = mass + N;
  const size_t span = size_t(w);
  const v4d zero = splat(0.0), one = splat(1.0), W = splat(w);
  auto anchor = [&](size_t t, size_t n, double& nu, double& su, double& g, double& m) {
    const size_t lo = t + 1 >= span ? t + 1 - span : 0;
    nu = su = g = 0.0;
    for (size_t j = lo; j <= t; ++j) {
      const double v = x[j * N + n];
      if (v == v) { nu += double(span - (t - j)) * v; su += v; g += std::fabs(v); }
    }
    m = g;
  };
  for (size_t t = 0; t < T; ++t) {
    const double* row = x + t * N;
    const double* old = t >= span ? x + (t - span) * N : nullptr;
    double* o = out + t * N;
    blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
      v4d nu = load(num + n, k, 0.0), su = load(sum + n, k, 0.0), wn = load(wnum + n, k, 0.0);
      v4d ws = load(wsum + n, k, 0.0), c = load(count + n, k, 0.0);
      v4d m = load(mass + n, k, 0.0), g = load(gross + n, k, 0.0);
      // Every weight moves down by one; the value leaving the window had weight 1 and drops out.
      nu -= su;
      wn -= ws;
      if (old) {
        const v4d v = load(old + n, k, kNaN);
        const v4l there = valid(v);
        const v4d a = select(there, v, zero);
        su -= a; g -= abs(a); m += abs(a);
        ws -= select(there, one, zero);
        c -= select(there, one, zero);
      }
      const v4d v = load(row + n, k, kNaN);
      const v4l there = valid(v);
      const v4d a = select(there, v, zero), in = select(there, one, zero);
      c += in; nu += W * a; su += a; wn += W * in; ws += in; g += abs(a); m += abs(a);
      const v4l empty = c == 0.0;  // an empty window restarts from exact zeros
      nu = select(empty, zero, nu); su = select(empty, zero, su); wn = select(empty, zero, wn);
      ws = select(empty, zero, ws); g = select(empty, zero, g); m = select(empty, zero, m);
      const v4l stale = m > kReanchor * g;
      store(num + n, nu, k); store(sum + n, su, k); store(wnum + n, wn, k); store(wsum + n, ws, k);
      store(count + n, c, k); store(mass + n, m, k); store(gross + n, g, k);
      if (any(stale)) [[unlikely]] {  // fixed up in the state arrays, out of the common path
        for (size_t i = 0; i < k; ++i)
          if (stale[i]) anchor(t, n + i, num[n + i], sum[n + i], gross[n + i], mass[n + i]);
        nu = load(num + n, k, 0.0);
      }
      const v4d r = nu / select(wn > 0.0, wn, one);
      store(o + n, select(there & (c >= double(minp)), r, splat(kNaN)), k);
    });
  }
}

void ts_delay(const double* x, double* out, size_t T, size_t N, int d) {
  for (size_t t = 0; t < T; ++t) {
    double* o = out + t * N;
    if (t < size_t(d)) { std::fill(o, o + N, kNaN); continue; }
    std::copy(x + (t - d) * N, x + (t - d + 1) * N, o);
  }
}

void ts_delta(const double* x, double* out, size_t T, size_t N, int d) {
  for (size_t t = 0; t < T; ++t) {
    double* o = out + t * N;
    if (t < size_t(d)) { std::fill(o, o + N, kNaN); continue; }
    const double* a = x + t * N;
    const double* b = x + (t - d) * N;
    for (size_t n = 0; n < N; ++n) o[n] = a[n] - b[n];
  }
}

namespace {
// Running co-moments over the pairs of a window where both inputs are valid, each input shifted by a
// per-column level (its value in the first pair of a window that was empty, later the window's mean at
// each re-anchoring). One pass a row: the pair leaving the window out, today's in, and
// emit(count, cxy, cxx, cyy, sxx, syy) the output from the centred sums. Re-anchored as the rolling
// moments are (see Moments), on the squared mass through either input against its centred sum of squares.
template <bool Leaving, class F>
QM_INLINE void pair_row(const double* x, const double* y, size_t t, size_t N, size_t w, double* o,
                        double* state, double mp, F& emit) {
  using namespace lanes;
  double* kx = state;
  double* ky = state + N;
  double* sx = state + 2 * N;
  double* sy = state + 3 * N;
  double* sxx = state + 4 * N;
  double* syy = state + 5 * N;
  double* sxy = state + 6 * N;
  double* cnt = state + 7 * N;
  double* mx = state + 8 * N;
  double* my = state + 9 * N;
  const double* xr = x + t * N;
  const double* yr = y + t * N;
  const v4d zero = splat(0.0), one = splat(1.0);
  const double limit = kReanchor * kReanchor;
  blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
    v4d ax = load(sx + n, k, 0.0), ay = load(sy + n, k, 0.0), axx = load(sxx + n, k, 0.0);
    v4d ayy = load(syy + n, k, 0.0), axy = load(sxy + n, k, 0.0), c = load(cnt + n, k, 0.0);
    v4d kxn = load(kx + n, k, 0.0), kyn = load(ky + n, k, 0.0);
    v4d mxn = load(mx + n, k, 0.0), myn = load(my + n, k, 0.0);
    if constexpr (Leaving) {  // a pair is missing when x + y is NaN
      const v4d xv = load(x + (t - w) * N + n, k, kNaN), yv = load(y + (t - w) * N + n, k, kNaN);
      const v4l there = valid(xv + yv);
      const v4d a = select(there, xv - kxn, zero), b = select(there, yv - kyn, zero);
      ax -= a; ay -= b; axx -= a * a; ayy -= b * b; axy -= a * b; c -= select(there, one, zero);
      mxn += a * a; myn += b * b;
    }
    // An empty window restarts from exact zeros, its shifts at its first pair.
    const v4l empty = c == 0.0;
    ax = select(empty, zero, ax); ay = select(empty, zero, ay);
    axx = select(empty, zero, axx); ayy = select(empty, zero, ayy); axy = select(empty, zero, axy);
    mxn = select(empty, zero, mxn); myn = select(empty, zero, myn);
    const v4d xv = load(xr + n, k, kNaN), yv = load(yr + n, k, kNaN);
    const v4l there = valid(xv + yv);
    kxn = select(empty & there, xv, kxn);
    kyn = select(empty & there, yv, kyn);
    const v4d a = select(there, xv - kxn, zero), b = select(there, yv - kyn, zero);
    ax += a; ay += b; axx += a * a; ayy += b * b; axy += a * b; c += select(there, one, zero);
    mxn += a * a; myn += b * b;
    // Either input's mass against its centred sum of squares (both times the count).
    const v4l stale = (mxn * c > limit * (axx * c - ax * ax)) | (myn * c > limit * (ayy * c - ay * ay));
    store(kx + n, kxn, k); store(ky + n, kyn, k);
    store(sx + n, ax, k); store(sy + n, ay, k); store(sxx + n, axx, k); store(syy + n, ayy, k);
    store(sxy + n, axy, k); store(cnt + n, c, k); store(mx + n, mxn, k); store(my + n, myn, k);
    if (any(stale)) [[unlikely]] {  // fixed up in the state arrays, out of the common path
      for (size_t i = 0; i < k; ++i) {
        if (!stale[i]) continue;
        // The window's valid pairs, afresh about their means.
        const size_t lo = t + 1 >= w ? t + 1 - w : 0, col = n + i;
        double mxs = 0.0, mys = 0.0, m = 0.0;
        for (size_t j = lo; j <= t; ++j) {
          const double p = x[j * N + col], q = y[j * N + col];
          if (p + q == p + q) { mxs += p; mys += q; m += 1.0; }
        }
        if (m > 0.0) { kx[col] = mxs / m; ky[col] = mys / m; }
        double s_x = 0.0, s_y = 0.0, s_xx = 0.0, s_yy = 0.0, s_xy = 0.0;
        for (size_t j = lo; j <= t; ++j) {
          const double p = x[j * N + col], q = y[j * N + col];
          if (!(p + q == p + q)) continue;
          const double u = p - kx[col], v = q - ky[col];
          s_x += u; s_y += v; s_xx += u * u; s_yy += v * v; s_xy += u * v;
        }
        sx[col] = s_x; sy[col] = s_y; sxx[col] = s_xx; syy[col] = s_yy; sxy[col] = s_xy; cnt[col] = m;
        mx[col] = s_xx; my[col] = s_yy;
      }
      ax = load(sx + n, k, 0.0); ay = load(sy + n, k, 0.0); axx = load(sxx + n, k, 0.0);
      ayy = load(syy + n, k, 0.0); axy = load(sxy + n, k, 0.0); c = load(cnt + n, k, 0.0);
    }
    const v4d cv = select(c > 1.0, c, splat(2.0)), inv = 1.0 / cv;
    const v4d v = emit(cv, axy - ax * ay * inv, axx - ax * ax * inv, ayy - ay * ay * inv, axx, ayy);
    store(o + n, select(there & (c >= mp), v, splat(kNaN)), k);
  });
}

template <class F>
void ts_pair(const double* x, const double* y, double* out, size_t T, size_t N, int w, F&& emit) {
  std::vector<double> state(10 * N, 0.0);
  const double mp = min_periods(w, true);
  for (size_t t = 0; t < T; ++t) {
    if (t >= size_t(w)) pair_row<true>(x, y, t, N, size_t(w), out + t * N, state.data(), mp, emit);
    else pair_row<false>(x, y, t, N, size_t(w), out + t * N, state.data(), mp, emit);
  }
}
}  // namespace

void ts_corr(const double* x, const double* y, double* out, size_t T, size_t N, int w) {
  using namespace lanes;
  ts_pair(x, y, out, T, N, w, [](v4d, v4d cxy, v4d cxx, v4d cyy, v4d sxx, v4d syy) QM_LAMBDA {
    v4d r = cxy / lanes::sqrt(cxx * cyy);
    r = select(r > 1.0, splat(1.0), select(r < -1.0, splat(-1.0), r));
    // A variance this small relative to the squared deviations is rounding residue of a constant window.
    return select((cxx > 1e-14 * sxx) & (cyy > 1e-14 * syy), r, splat(kNaN));
  });
}

void ts_cov(const double* x, const double* y, double* out, size_t T, size_t N, int w) {
  using namespace lanes;
  ts_pair(x, y, out, T, N, w, [](v4d c, v4d cxy, v4d, v4d, v4d, v4d) QM_LAMBDA { return cxy / (c - 1.0); });
}

namespace {
// Sorts the valid values of a row by keys whose unsigned order is the numeric order of the values: an LSD
// radix sort, one byte a pass, on the upper 32 bits of the keys (sign, exponent and the leading 20 bits of
// the mantissa), then an insertion pass on the full keys, which only moves values that agree in those 32
// bits but differ below them: rare, and adjacent after the radix passes. The histograms of all four bytes
// come from one pass over the keys; a pass whose byte is the same for every key is skipped.
class RowSort {
 public:
  explicit RowSort(size_t N)
      : key_(N), idx_{std::vector<uint32_t>(N), std::vector<uint32_t>(N)},
        high_{std::vector<uint32_t>(N), std::vector<uint32_t>(N)} {}

  // Order key of a value that is not NaN. -0.0 and +0.0 are equal, and share a key.
  static uint64_t key(double v) {
    v += 0.0;  // -0.0 + 0.0 is +0.0
    uint64_t b;
    std::memcpy(&b, &v, sizeof b);
    return b ^ (uint64_t(int64_t(b) >> 63) | (uint64_t(1) << 63));  // negatives: all bits; others: the sign
  }

  // Takes the valid values of row (writing NaN to o where there are none) and sorts them; returns their
  // count. keys()[i] and index()[i] are then the i-th smallest key and the column it came from.
  size_t sort(const double* row, double* o, size_t N) {
    uint32_t* h32 = high_[0].data();
    uint32_t* ix = idx_[0].data();
    size_t m = 0;
    for (size_t n = 0; n < N; ++n) {  // branch-free: every value is written, only valid ones are kept
      double v = row[n];
      h32[m] = uint32_t(key(v == v ? v : 0.0) >> 32);
      ix[m] = uint32_t(n);
      o[n] = kNaN;
      m += v == v;
    }
    std::memset(hist_, 0, sizeof hist_);
    for (size_t i = 0; i < m; ++i) {
      uint32_t v = h32[i];
      ++hist_[0][v & 0xff]; ++hist_[1][(v >> 8) & 0xff]; ++hist_[2][(v >> 16) & 0xff]; ++hist_[3][v >> 24];
    }
    int cur = 0;
    for (int d = 0; d < 4 && m > 1; ++d) {
      const unsigned shift = 8 * d;
      uint32_t* h = hist_[d];
      if (h[(high_[cur][0] >> shift) & 0xff] == m) continue;  // one bucket holds every key
      uint32_t at = 0;
      for (int b = 0; b < 256; ++b) { uint32_t c = h[b]; h[b] = at; at += c; }
      const uint32_t* __restrict ks = high_[cur].data();
      const uint32_t* __restrict is = idx_[cur].data();
      uint32_t* __restrict kd = high_[cur ^ 1].data();
      uint32_t* __restrict id = idx_[cur ^ 1].data();
      for (size_t i = 0; i < m; ++i) {
        uint32_t pos = h[(ks[i] >> shift) & 0xff]++;
        kd[pos] = ks[i];
        id[pos] = is[i];
      }
      cur ^= 1;
    }
    sorted_ = idx_[cur].data();
    uint64_t* k = key_.data();
    for (size_t i = 0; i < m; ++i) {
      const uint64_t v = key(row[sorted_[i]]);
      size_t j = i;
      if (j > 0 && k[j - 1] > v) {  // only when the upper 32 bits tie
        const uint32_t col = sorted_[i];
        for (; j > 0 && k[j - 1] > v; --j) { k[j] = k[j - 1]; sorted_[j] = sorted_[j - 1]; }
        sorted_[j] = col;
      }
      k[j] = v;
    }
    return m;
  }
  const uint64_t* keys() const { return key_.data(); }
  const uint32_t* index() const { return sorted_; }

 private:
  std::vector<uint64_t> key_;
  std::vector<uint32_t> idx_[2], high_[2];
  uint32_t* sorted_ = nullptr;
  uint32_t hist_[4][256];
};
}  // namespace

void cs_rank(const double* x, double* out, size_t T, size_t N) {
  RowSort sorter(N);
  for (size_t t = 0; t < T; ++t) {
    double* o = out + t * N;
    const size_t m = sorter.sort(x + t * N, o, N);
    const uint64_t* k = sorter.keys();
    const uint32_t* ix = sorter.index();
    if (m == 1) { o[ix[0]] = 0.5; continue; }
    for (size_t i = 0; i < m;) {
      size_t j = i;
      while (j + 1 < m && k[j + 1] == k[i]) ++j;
      double r = 0.5 * double(i + j) / double(m - 1);  // average of the tied zero-based ranks
      for (size_t q = i; q <= j; ++q) o[ix[q]] = r;
      i = j + 1;
    }
  }
}

namespace {
// Sums along a row are added in instrument order, one value at a time, so a row's result does not depend on
// how the row is cut; that makes each sum one long chain of dependent additions. The cross-sectional
// reductions therefore run kRows rows side by side, one row a lane: the chains of different rows overlap,
// and each lane still adds its row's values in instrument order, so every row gives the bits it gives alone.
// Columns are read four at a time from four rows and transposed in registers.
constexpr size_t kGroups = 2;              // vectors of four rows (columns_of_rows reads eight rows)
constexpr size_t kRows = 4 * kGroups;

QM_INLINE void transpose4(lanes::v4d& a, lanes::v4d& b, lanes::v4d& c, lanes::v4d& d) {
  using lanes::v4l;
  const lanes::v4d t0 = __builtin_shuffle(a, b, v4l{0, 4, 2, 6}), t1 = __builtin_shuffle(a, b, v4l{1, 5, 3, 7});
  const lanes::v4d t2 = __builtin_shuffle(c, d, v4l{0, 4, 2, 6}), t3 = __builtin_shuffle(c, d, v4l{1, 5, 3, 7});
  a = __builtin_shuffle(t0, t2, v4l{0, 1, 4, 5});
  b = __builtin_shuffle(t1, t3, v4l{0, 1, 4, 5});
  c = __builtin_shuffle(t0, t2, v4l{2, 3, 6, 7});
  d = __builtin_shuffle(t1, t3, v4l{2, 3, 6, 7});
}

// f(g, v) for every column n = 0 .. N-1 in order, v holding column n of rows r[4g] .. r[4g+3].
template <class F>
QM_INLINE void columns_of_rows(const double* const* r, size_t N, F&& f) {
  using namespace lanes;
  size_t n = 0;
  const double *r0 = r[0], *r1 = r[1], *r2 = r[2], *r3 = r[3], *r4 = r[4], *r5 = r[5], *r6 = r[6], *r7 = r[7];
  for (; n + 4 <= N; n += 4) {
    v4d a0 = load(r0 + n, 4, 0.0), a1 = load(r1 + n, 4, 0.0), a2 = load(r2 + n, 4, 0.0), a3 = load(r3 + n, 4, 0.0);
    v4d b0 = load(r4 + n, 4, 0.0), b1 = load(r5 + n, 4, 0.0), b2 = load(r6 + n, 4, 0.0), b3 = load(r7 + n, 4, 0.0);
    transpose4(a0, a1, a2, a3);
    transpose4(b0, b1, b2, b3);
    f(0, a0); f(1, b0); f(0, a1); f(1, b1); f(0, a2); f(1, b2); f(0, a3); f(1, b3);
  }
  for (; n < N; ++n)
    for (size_t g = 0; g < kGroups; ++g) f(g, v4d{r[4 * g][n], r[4 * g + 1][n], r[4 * g + 2][n], r[4 * g + 3][n]});
}

// The valid values of each row: their sum (of |x| when Abs) in instrument order, and their count.
template <bool Abs>
QM_INLINE void row_sums(const double* const* r, size_t N, double* sum, double* count) {
  using namespace lanes;
  v4d s[kGroups], m[kGroups];
  for (size_t g = 0; g < kGroups; ++g) s[g] = m[g] = splat(0.0);
  columns_of_rows(r, N, [&](size_t g, v4d v) QM_LAMBDA {
    const v4l there = valid(v);
    s[g] = select(there, s[g] + (Abs ? abs(v) : v), s[g]);
    m[g] += select(there, splat(1.0), splat(0.0));
  });
  for (size_t g = 0; g < kGroups; ++g)
    for (size_t i = 0; i < 4; ++i) { sum[4 * g + i] = s[g][i]; count[4 * g + i] = m[g][i]; }
}

// Sum and count of one row's valid values, in instrument order (rows that do not fill a group).
inline void row_sum(const double* row, size_t N, bool absolute, double& s, double& m) {
  s = 0.0;
  m = 0.0;
  for (size_t n = 0; n < N; ++n) if (ok(row[n])) { s += absolute ? std::fabs(row[n]) : row[n]; m += 1.0; }
}

// Rows t .. t+kRows-1 (whole groups) through f(rows, sums, counts) and the rest one at a time.
template <bool Abs, class F>
QM_INLINE void each_row_sum(const double* x, size_t T, size_t N, F&& f) {
  const double* r[kRows];
  double s[kRows], m[kRows];
  size_t t = 0;
  for (; t + kRows <= T; t += kRows) {
    for (size_t i = 0; i < kRows; ++i) r[i] = x + (t + i) * N;
    row_sums<Abs>(r, N, s, m);
    for (size_t i = 0; i < kRows; ++i) f(t + i, s[i], m[i]);
  }
  for (; t < T; ++t) {
    row_sum(x + t * N, N, Abs, s[0], m[0]);
    f(t, s[0], m[0]);
  }
}

// Sum of squared deviations from each row's mean over its valid values, in instrument order.
inline void row_squares(const double* x, size_t t, size_t N, const double* mean, double* ss, size_t rows) {
  using namespace lanes;
  if (rows < kRows) {
    for (size_t i = 0; i < rows; ++i) {
      const double* row = x + (t + i) * N;
      double q = 0.0;
      for (size_t n = 0; n < N; ++n) if (ok(row[n])) { const double d = row[n] - mean[i]; q += d * d; }
      ss[i] = q;
    }
    return;
  }
  const double* r[kRows];
  for (size_t i = 0; i < kRows; ++i) r[i] = x + (t + i) * N;
  v4d q[kGroups], mu[kGroups];
  for (size_t g = 0; g < kGroups; ++g) {
    q[g] = splat(0.0);
    mu[g] = v4d{mean[4 * g], mean[4 * g + 1], mean[4 * g + 2], mean[4 * g + 3]};
  }
  columns_of_rows(r, N, [&](size_t g, v4d v) QM_LAMBDA {
    const v4d d = v - mu[g];
    q[g] = select(valid(v), q[g] + d * d, q[g]);
  });
  for (size_t g = 0; g < kGroups; ++g)
    for (size_t i = 0; i < 4; ++i) ss[4 * g + i] = q[g][i];
}
}  // namespace

void cs_zscore(const double* x, double* out, size_t T, size_t N) {
  double mean[kRows], sd[kRows], count[kRows], ss[kRows];
  for (size_t t = 0; t < T; t += kRows) {
    const size_t rows = std::min(kRows, T - t);
    if (rows == kRows) {
      const double* r[kRows];
      for (size_t i = 0; i < kRows; ++i) r[i] = x + (t + i) * N;
      double s[kRows];
      row_sums<false>(r, N, s, count);
      for (size_t i = 0; i < kRows; ++i) mean[i] = count[i] > 0.0 ? s[i] / count[i] : kNaN;
    } else {
      for (size_t i = 0; i < rows; ++i) {
        double s;
        row_sum(x + (t + i) * N, N, false, s, count[i]);
        mean[i] = count[i] > 0.0 ? s / count[i] : kNaN;
      }
    }
    row_squares(x, t, N, mean, ss, rows);
    for (size_t i = 0; i < rows; ++i) {
      const double* row = x + (t + i) * N;
      double* o = out + (t + i) * N;
      sd[i] = count[i] > 0.0 ? std::sqrt(ss[i] / count[i]) : kNaN;
      const double mu = mean[i], sigma = sd[i];
      const bool bad = count[i] < 2.0 || !(sigma > 1e-12 * std::fabs(mu)) || sigma == 0.0;
      for (size_t n = 0; n < N; ++n) o[n] = (bad || !ok(row[n])) ? kNaN : (row[n] - mu) / sigma;
    }
  }
}

void cs_demean(const double* x, double* out, size_t T, size_t N) {
  each_row_sum<false>(x, T, N, [&](size_t t, double s, double m) QM_LAMBDA {
    const double* row = x + t * N;
    double* o = out + t * N;
    const double mean = m > 0.0 ? s / m : 0.0;
    for (size_t n = 0; n < N; ++n) o[n] = row[n] - mean;
  });
}

void cs_scale(const double* x, double* out, size_t T, size_t N) {
  each_row_sum<true>(x, T, N, [&](size_t t, double s, double) QM_LAMBDA {
    const double* row = x + t * N;
    double* o = out + t * N;
    for (size_t n = 0; n < N; ++n) o[n] = s > 0.0 ? row[n] / s : kNaN;
  });
}

void unary(Unary op, const double* x, double* out, size_t n) {
  switch (op) {
    case Unary::neg: for (size_t i = 0; i < n; ++i) out[i] = -x[i]; break;
    case Unary::abs: for (size_t i = 0; i < n; ++i) out[i] = std::fabs(x[i]); break;
    case Unary::sign:
      for (size_t i = 0; i < n; ++i) out[i] = ok(x[i]) ? double((x[i] > 0) - (x[i] < 0)) : kNaN;
      break;
    case Unary::slog:
      // log1p(a) as log(u) - ((u - 1) - a) / u with u = 1 + a: the correction restores what rounding
      // 1 + a lost. a too small to move u, infinite or NaN is its own log1p.
      lanes::blocks(n, [&](size_t i, size_t k) QM_LAMBDA {
        using namespace lanes;
        const v4d v = load(x + i, k, 0.0), a = abs(v), u = 1.0 + a;
        const v4l exact = (u == 1.0) | ~(u < std::numeric_limits<double>::infinity());
        const v4d safe = select(exact, splat(2.0), u);
        const v4d l = select(exact, a, log_positive(safe) - ((safe - 1.0) - a) / safe);
        store(out + i, (v4d)(((v4l)v & splat_int(INT64_MIN)) | (v4l)l), k);  // a's log with x's sign
      });
      break;
    case Unary::ssqrt:
      for (size_t i = 0; i < n; ++i) out[i] = std::copysign(std::sqrt(std::fabs(x[i])), x[i]);
      break;
    case Unary::square: for (size_t i = 0; i < n; ++i) out[i] = x[i] * x[i]; break;
    case Unary::inverse: for (size_t i = 0; i < n; ++i) out[i] = x[i] != 0.0 ? 1.0 / x[i] : kNaN; break;
  }
}

void binary(Binary op, const double* x, const double* y, double* out, size_t n) {
  switch (op) {
    case Binary::add: for (size_t i = 0; i < n; ++i) out[i] = x[i] + y[i]; break;
    case Binary::sub: for (size_t i = 0; i < n; ++i) out[i] = x[i] - y[i]; break;
    case Binary::mul: for (size_t i = 0; i < n; ++i) out[i] = x[i] * y[i]; break;
    case Binary::div:
      for (size_t i = 0; i < n; ++i) out[i] = y[i] != 0.0 ? x[i] / y[i] : kNaN;
      break;
    case Binary::min:
      for (size_t i = 0; i < n; ++i) out[i] = (ok(x[i]) && ok(y[i])) ? std::min(x[i], y[i]) : kNaN;
      break;
    case Binary::max:
      for (size_t i = 0; i < n; ++i) out[i] = (ok(x[i]) && ok(y[i])) ? std::max(x[i], y[i]) : kNaN;
      break;
  }
}

namespace {
// Demean the valid values of one row into o, 0 where there is no signal. Returns the factor that scales
// the row to unit gross (and sets `largest` to the largest |deviation|), or 0 when there is nothing to
// hold; o is then all zero.
QM_INLINE double demean(const double* __restrict src, double* __restrict o, size_t N, double& largest) {
  using namespace lanes;
  v4d s = splat(0.0);
  v4l m = splat_int(0);
  blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
    v4d v = load(src + n, k, kNaN);
    v4l ok = valid(v);
    s += select(ok, v, splat(0.0));
    m -= ok;
  });
  const double count = double(sum(m));
  const double mean = count > 0.0 ? sum(s) / count : 0.0;
  v4d gross = splat(0.0), mx = splat(0.0);
  blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
    v4d v = load(src + n, k, kNaN);
    v4d d = select(valid(v), v - mean, splat(0.0));
    store(o + n, d, k);
    v4d a = abs(d);
    gross += a;
    mx = max(mx, a);
  });
  const double g = sum(gross);
  largest = max(mx);
  // A spread this small relative to the level is rounding residue of a constant row.
  if (!(g > 1e-12 * std::fabs(mean) * count) || !(g > 0.0)) {
    std::fill(o, o + N, 0.0);
    return 0.0;
  }
  return 1.0 / g;
}
}  // namespace

namespace {
// The per-day normalisation of the book, when it is more than a positive per-day scale (rank) or when
// days are blended (decay). Returns false when the book can come straight from the signal: "none",
// "zscore" and "rescale" scale each day by a positive constant that demeaning and scaling to unit gross
// remove again.
bool normalise(const double* signal, std::vector<double>& panel, size_t T, size_t N, Normalization norm,
               int decay) {
  if (decay <= 1 && norm != Normalization::rank) return false;
  const size_t cells = T * N;
  panel.resize(cells);
  double* weights = panel.data();
  switch (norm) {
    case Normalization::none: std::copy(signal, signal + cells, weights); break;
    case Normalization::rank: cs_rank(signal, weights, T, N); break;
    case Normalization::zscore: cs_zscore(signal, weights, T, N); break;
    case Normalization::rescale:
      for (size_t t = 0; t < T; ++t) {
        const double* row = signal + t * N;
        double* o = weights + t * N;
        double mx = 0.0;
        for (size_t n = 0; n < N; ++n) if (ok(row[n])) mx = std::max(mx, std::fabs(row[n]));
        for (size_t n = 0; n < N; ++n) o[n] = mx > 0.0 ? row[n] / mx : kNaN;
      }
      break;
  }
  if (decay > 1) {
    std::vector<double> tmp(panel);
    ts_decay_linear(tmp.data(), weights, T, N, decay, 1);
  }
  return true;
}

// Caps a unit-gross day at `cap` by water-filling: weights above the cap are pinned to it and the free
// ones re-scaled to fill what the pinned leave, until no free weight exceeds the cap. With a_n the day's
// absolute weights (summing to one), the pinned are those above the level h at which
//     G(h) = sum_n min(a_n, h) - h / cap
// is zero: free weights scaled by cap / h and pinned ones at the cap then fill the book exactly. G is
// concave and piecewise linear, its slope the number of weights above h less 1 / cap, and negative at the
// largest weight (which is what makes the day need capping). Newton's method from there walks down to the
// root without overshooting and lands on it once it reaches the root's piece: a few passes over the day,
// however heavy its tail, each counting the weights above h and summing those below. With fewer than
// 1 / cap names there is no root; h falls to zero, and every held name sits at the cap.
QM_INLINE void cap_day(double* o, size_t N, double largest, double cap) {
  using namespace lanes;
  double h = largest, below = 0.0;
  size_t above = 0, previous = size_t(-1);
  for (size_t round = 0; round <= N + 1; ++round) {
    v4d s = splat(0.0);
    v4l c = splat_int(0);
    blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
      v4d a = abs(load(o + n, k, 0.0));
      v4l over = a > h;
      s += select(over, splat(0.0), a);
      c -= over;
    });
    below = sum(s);
    above = size_t(sum(c));
    if (above == previous) break;  // h is where the last step aimed: the root of this piece
    const double g = below + double(above) * h - h / cap, slope = double(above) - 1.0 / cap;
    if (!(g < 0.0) || !(slope < 0.0)) break;
    const double next = std::max(0.0, h - g / slope);
    if (!(next < h)) break;
    h = next;
    previous = above;
  }
  const double room = std::max(0.0, 1.0 - double(above) * cap);
  const double scale = below > 0.0 ? room / below : 0.0;
  const v4l sign = splat_int(INT64_MIN);
  const v4d pin = splat(cap);
  blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
    v4d v = load(o + n, k, 0.0);
    v4d pinned = (v4d)(((v4l)v & sign) | (v4l)pin);
    store(o + n, select(abs(v) > h, pinned, v * scale), k);
  });
}

// One day of the book: demean, scale to unit gross, cap at `truncation` (0: no cap). Leaves the demeaned
// row in o and returns the factor that turns it into the book: 1/gross when no weight exceeds the cap,
// else 1 with o already the book.
QM_INLINE double book_row(const double* src, double* o, size_t N, double truncation) {
  double largest;
  const double inv = demean(src, o, N, largest);
  if (!(inv > 0.0) || !(truncation > 0.0 && largest * inv > truncation)) return inv;
  for (size_t n = 0; n < N; ++n) o[n] *= inv;
  cap_day(o, N, largest * inv, truncation);
  return 1.0;
}

// The flags of four names (k <= 4 of them real) as lanes, nonzero meaning flagged: one widening load.
QM_INLINE lanes::v4l flags4(const std::uint8_t* f, size_t k) {
  typedef std::uint8_t v4b __attribute__((vector_size(4)));
  v4b b = {0, 0, 0, 0};
  if (k == lanes::kLanes) std::memcpy(&b, f, sizeof b);
  else for (size_t i = 0; i < k; ++i) b[i] = f[i];
  return __builtin_convertvector(b, lanes::v4l);
}

// One day of the daily series. The day's book is scale * src, written to w; `prev` is the previous day's
// book (all zero before the first day). Every test is a lane mask; nothing branches on the data.
template <bool HasFlag>
QM_INLINE void daily_row(const double* __restrict src, double scale, double* __restrict w,
                         const double* __restrict prev, const double* __restrict r,
                         const std::uint8_t* __restrict f, size_t N, DailySeries& s, size_t t) {
  using namespace lanes;
  const v4d zero = splat(0.0);
  v4d pnl = zero, traded = zero, net = zero, gross = zero, mx = zero, flagged = zero;
  v4l longs = splat_int(0), shorts = splat_int(0);
  blocks(N, [&](size_t n, size_t k) QM_LAMBDA {
    v4d v = load(src + n, k, 0.0) * scale;
    store(w + n, v, k);
    v4d ret = load(r + n, k, 0.0);
    v4d a = abs(v);
    traded += abs(v - load(prev + n, k, 0.0));
    pnl += v * select(valid(ret), ret, zero);
    longs -= v > zero;
    shorts -= v < zero;
    net += v;
    gross += a;
    mx = max(mx, a);
    if constexpr (HasFlag) flagged += select(flags4(f + n, k) != 0, a, zero);
  });
  const double g = sum(gross), l = double(sum(longs)), sh = double(sum(shorts));
  s.pnl[t] = sum(pnl); s.traded[t] = sum(traded); s.longs[t] = l; s.shorts[t] = sh;
  s.net[t] = sum(net); s.abs_sum[t] = g; s.max_share[t] = g > 0.0 ? max(mx) / g : 0.0;
  s.held[t] = l + sh; s.flagged[t] = sum(flagged);
}

// The daily series of books given row by row: book t is scale(t) * rows(t), kept for day t + 1.
template <class Rows>
QM_INLINE void daily_series(const double* fwd, const std::uint8_t* flag, size_t T, size_t N, DailySeries& s,
                            Rows&& rows) {
  std::vector<double> cur(N), prev(N, 0.0);
  for (size_t t = 0; t < T; ++t) {
    double scale;
    const double* src = rows(t, scale);
    if (flag) daily_row<true>(src, scale, cur.data(), prev.data(), fwd + t * N, flag + t * N, N, s, t);
    else daily_row<false>(src, scale, cur.data(), prev.data(), fwd + t * N, nullptr, N, s, t);
    std::swap(cur, prev);
  }
}
}  // namespace

void book_weights(const double* signal, double* weights, size_t T, size_t N, Normalization norm,
                  int decay, double truncation) {
  std::vector<double> panel;
  const double* src = normalise(signal, panel, T, N, norm, decay) ? panel.data() : signal;
  for (size_t t = 0; t < T; ++t) {
    double* o = weights + t * N;
    const double scale = book_row(src + t * N, o, N, truncation);
    if (scale != 1.0) for (size_t n = 0; n < N; ++n) o[n] *= scale;
  }
}

void book_daily(const double* weights, const double* fwd, const std::uint8_t* flag, size_t T, size_t N,
                DailySeries s) {
  daily_series(fwd, flag, T, N, s, [&](size_t t, double& scale) QM_LAMBDA {
    scale = 1.0;
    return weights + t * N;
  });
}

void book_series(const double* signal, const double* fwd, const std::uint8_t* flag, size_t T, size_t N,
                 Normalization norm, int decay, double truncation, DailySeries s) {
  std::vector<double> panel;
  const double* src = normalise(signal, panel, T, N, norm, decay) ? panel.data() : signal;
  std::vector<double> row(N);
  daily_series(fwd, flag, T, N, s, [&](size_t t, double& scale) QM_LAMBDA {
    scale = book_row(src + t * N, row.data(), N, truncation);
    return row.data();
  });
}

}  // namespace quillmarsh::local::QM_ISA

namespace quillmarsh::local::QM_ISA {
const KernelTable table = {
    .name = QM_ISA_NAME,
    .ts_sum = ts_sum, .ts_mean = ts_mean, .ts_std = ts_std, .ts_zscore = ts_zscore, .ts_min = ts_min,
    .ts_max = ts_max, .ts_rank = ts_rank, .ts_decay_linear = ts_decay_linear, .ts_delay = ts_delay,
    .ts_delta = ts_delta, .ts_corr = ts_corr, .ts_cov = ts_cov, .cs_rank = cs_rank, .cs_zscore = cs_zscore,
    .cs_demean = cs_demean, .cs_scale = cs_scale, .unary = unary, .binary = binary,
    .book_weights = book_weights, .book_daily = book_daily, .book_series = book_series,
};
}  // namespace quillmarsh::local::QM_ISA

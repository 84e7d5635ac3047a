// Panel kernels of the local backtester.
//
// A panel is a C-contiguous float64 array of shape (T, N): row t is one day, column n one instrument.
// Every kernel reads its inputs and writes a caller-owned output of the same shape; none touches Python,
// so the module runs them with the GIL released.
//
// Missing values. NaN means "not observed"; it is never read as zero.
//   * Element-wise and cross-sectional kernels give NaN wherever an input is NaN.
//   * Rolling kernels (window w, the last w rows up to and including t) give NaN where the current input
//     is NaN, and otherwise compute over the valid values of the window only. They need at least
//     min_periods(w) = max(1, ceil(w/2)) valid values, and at least 2 for std, zscore, corr and cov;
//     below that the cell is NaN.
//   * delay(x, d)[t] = x[t-d] (NaN for t < d); delta(x, d)[t] = x[t] - x[t-d].
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace quillmarsh::local {

using std::size_t;

// Valid values a rolling window of w needs before it gives a value.
constexpr int min_periods(int window, bool needs_two) {
  const int m = std::max(1, (window + 1) / 2);
  return needs_two ? std::max(2, m) : m;
}

enum class Unary { neg, abs, sign, slog, ssqrt, square, inverse };
enum class Binary { add, sub, mul, div, min, max };
enum class Normalization { none, rank, zscore, rescale };
struct DailySeries {
  double* pnl; double* traded; double* longs; double* shorts; double* net; double* abs_sum; double* max_share;
  double* held; double* flagged;
};

// The kernels, as one table per instruction set: the same source is compiled for the x86-64 baseline and
// for x86-64-v3 (AVX2, FMA); kernels() is the build for the machine this runs on, or the baseline build
// when the environment variable QUILLMARSH_KERNELS is "baseline" at first use.
struct KernelTable {
  const char* name;  // the instruction set the table was built for
  // Rolling (time-series) kernels: one pass over the panel, state kept per column.
  void (*ts_sum)(const double* x, double* out, size_t T, size_t N, int w);
  void (*ts_mean)(const double* x, double* out, size_t T, size_t N, int w);
  void (*ts_std)(const double* x, double* out, size_t T, size_t N, int w);      // sample (ddof = 1)
  void (*ts_zscore)(const double* x, double* out, size_t T, size_t N, int w);   // (x - mean) / std
  void (*ts_min)(const double* x, double* out, size_t T, size_t N, int w);
  void (*ts_max)(const double* x, double* out, size_t T, size_t N, int w);
  // Rank of today's value within its window: (less + (equal - 1) / 2) / (valid - 1), in [0, 1];
  // 0.5 when today's value is the only valid one. O(w) per cell.
  void (*ts_rank)(const double* x, double* out, size_t T, size_t N, int w);
  // Linearly decaying weights w, w-1, ..., 1 (today heaviest), normalised over the valid values.
  void (*ts_decay_linear)(const double* x, double* out, size_t T, size_t N, int w, int minp);
  void (*ts_delay)(const double* x, double* out, size_t T, size_t N, int d);
  void (*ts_delta)(const double* x, double* out, size_t T, size_t N, int d);
  void (*ts_corr)(const double* x, const double* y, double* out, size_t T, size_t N, int w);
  void (*ts_cov)(const double* x, const double* y, double* out, size_t T, size_t N, int w);  // sample

  // Cross-sectional kernels: each row on its own, over its valid values.
  void (*cs_rank)(const double* x, double* out, size_t T, size_t N);  // (rank-1)/(valid-1), ties averaged
  void (*cs_zscore)(const double* x, double* out, size_t T, size_t N);  // population std; NaN if std is 0
  void (*cs_demean)(const double* x, double* out, size_t T, size_t N);
  void (*cs_scale)(const double* x, double* out, size_t T, size_t N);   // x / sum|x|; NaN if the sum is 0

  // Element-wise arithmetic.
  void (*unary)(Unary op, const double* x, double* out, size_t n);
  void (*binary)(Binary op, const double* x, const double* y, double* out, size_t n);

  // The book. Normalisation per day, linear decay over days, then per day: demean, scale so that the
  // absolute weights sum to one, and cap each weight at `truncation` of the book, the uncapped weights
  // re-scaled to fill it (exact water-filling; when 1/truncation exceeds the number of names the book stays
  // below one). Instruments with no valid signal hold no position (weight 0).
  void (*book_weights)(const double* signal, double* weights, size_t T, size_t N, Normalization norm,
                       int decay, double truncation);

  // Daily series of a book against the next day's returns (a missing return earns nothing):
  // pnl, traded value, long count, short count, net exposure, absolute weight sum, largest weight share,
  // number of positions held, and the sum of |w[t,n]| over the names flagged (nonzero) in the one-byte
  // `flag` panel (may be null: 0).
  void (*book_daily)(const double* weights, const double* fwd_returns, const std::uint8_t* flag, size_t T, size_t N,
                     DailySeries s);
  // book_weights and book_daily in one pass over the days, without materialising the book.
  void (*book_series)(const double* signal, const double* fwd_returns, const std::uint8_t* flag, size_t T, size_t N,
                      Normalization norm, int decay, double truncation, DailySeries s);
};
const KernelTable& kernels();

}  // namespace quillmarsh::local

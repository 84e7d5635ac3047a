// Whole-graph evaluation of the local backtester: a plan, its execution in blocks of instruments, and the
// subtree cache shared by the threads of one evaluator.
//
// A plan is a graph's operators in post-order (every input before the operator that reads it), with their
// configuration values bound and their inputs named: a leaf panel handed in by the caller (a feature or an
// auxiliary panel such as the liquidity rank) or an earlier operator. Identical subtrees of one graph are
// one operator.
//
// Element-wise and time-series operators treat every instrument on its own, so a run of them is computed
// over a block of instruments at a time, in buffers of (days x block) cells that stay in the core's cache;
// only what leaves the run (its result, read by a cross-sectional, group, filter or reduction operator, by
// more than one operator, or returned) is written to a whole panel. The kernels are the same and see each
// instrument's values in the same order, so a blocked run gives the same bits as whole panels do.
//
// Nothing here touches Python: the module checks and converts while it holds the GIL and runs plans with
// it released.
#pragma once
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "kernels.hpp"
#include "panel_pool.hpp"

namespace quillmarsh::local {

enum class OpKind { ts, ts2, cs, unary, binary, group, filter, reduce };
enum class TsOp { sum, mean, std, zscore, rank, delay, delta, min, max, decay_linear };
enum class Ts2Op { corr, cov };
enum class CsOp { rank, zscore, demean, scale };
enum class ReduceOp { mean, median, std };

struct PlanNode {
  OpKind kind;
  int op = 0;             // the enumerator of its kind (TsOp, Ts2Op, CsOp, Unary, Binary, ReduceOp)
  int window = 0;         // window or lag of time-series operators
  double threshold = 0;   // filters: keep x where the auxiliary panel (second input) >= threshold
  std::vector<int> inputs;  // >= 0: an earlier node; < 0: leaf panel -1 - i
  std::string key;        // canonical form of the subtree; the cache's key
  // Derived by Plan::finish.
  bool whole = false;     // materialised as a whole panel (else lives only in block buffers)
};

struct Plan {
  std::vector<PlanNode> nodes;  // post-order; the last is the root
  // Which nodes are whole panels: all of them unless `blocked`, else those that leave a run of blockable
  // operators (read by a whole-panel operator or by more than one operator, or the root). Every input
  // names a leaf or an earlier node (the module checks each node as it reads it).
  void finish(bool blocked);
  static bool blockable(OpKind k) {
    return k == OpKind::ts || k == OpKind::ts2 || k == OpKind::unary || k == OpKind::binary;
  }
};

// Canonical subtree -> read-only panel, least recently used evicted first, at most max_bytes of panels held.
// A panel is kept from the second time its subtree is computed on: most subtrees of a search never come
// again, and writing each of them to memory that has left the processor's caches costs more than a rare
// hit saves, so the first time only the key is remembered (the last kSeenKeys keys). A subtree that one
// thread is computing is awaited by a thread that asks for it before it has claimed any work of its own
// (so no two threads ever wait on each other), and computed again otherwise; waiters get the panel even
// when it is not kept.
class SubtreeCache {
 public:
  explicit SubtreeCache(size_t max_bytes) : max_bytes_(max_bytes) {}

  enum class Got { hit, claimed, busy, uncached };
  // hit: `out` holds the panel. claimed: the caller computes it and must fulfil() or abandon() the key.
  // busy: another thread is computing it (only when may_wait is false). uncached: compute, do not store.
  Got lookup(const std::string& key, size_t bytes, bool may_wait, PanelPtr& out);
  void fulfil(const std::string& key, const PanelPtr& panel);
  void abandon(const std::string& key);

  struct Info { std::uint64_t hits, misses, evictions; size_t bytes, entries, max_bytes; };
  Info info();
  void clear();
  size_t max_bytes() const { return max_bytes_; }

 private:
  static constexpr size_t kSeenKeys = 1 << 16;
  struct Entry {
    PanelPtr panel;  // null while in flight
    std::list<std::string>::iterator lru;
    bool keep;       // kept once computed; else only handed to the threads waiting for it
    int waiters;
    std::uint64_t id;
  };
  void evict_locked();
  void remember_locked(const std::string& key);

  std::mutex mu_;
  std::condition_variable ready_;
  std::unordered_map<std::string, Entry> map_;
  std::list<std::string> lru_;  // kept keys, most recently used first
  std::unordered_map<std::string, char> seen_;  // keys computed once and not kept
  std::list<std::string> seen_order_;           // oldest first
  std::uint64_t next_id_ = 0;
  size_t bytes_ = 0;
  const size_t max_bytes_;
  std::uint64_t hits_ = 0, misses_ = 0, evictions_ = 0;
};

struct Market {
  size_t T, N;
  const std::vector<std::vector<std::uint32_t>>* groups;  // the instruments of each group, ascending
};

// The signal of a plan. `block` instruments per block (0: whole panels); cache may be null.
PanelPtr execute(const Plan& plan, const std::vector<const double*>& leaves, const Market& m, size_t block,
                 SubtreeCache* cache);

// Sum of a[0..n) in the order NumPy's pairwise summation adds a contiguous float64 array, so that sums
// match the library's bit for bit.
double pairwise_sum(const double* a, size_t n);

// What a backtest reports of the daily series of a book over its first `in_sample` days.
struct ColumnStats { double sharpe, returns, turnover, fitness, margin, drawdown; };
struct BookStats {
  ColumnStats gross, net;
  double long_count, short_count, delta_exposure, max_weight, abs_weight_sum_mean;
  double coverage;             // NaN when there is no book
  double illiquid_share, positive_year_fraction, held_out_sharpe;
  bool any_book;
};
// series: pnl, traded, longs, shorts, net, abs_sum, max_share, held, flagged (each T long); net_pnl the
// net returns (written here, T long); tradable the names with a return per day.
BookStats book_stats(const DailySeries& s, double* net_pnl, const double* tradable, size_t T, size_t in_sample,
                     double cost);

}  // namespace quillmarsh::local

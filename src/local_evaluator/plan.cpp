// Execution of plans, the subtree cache, and the statistics of a book.
#include "plan.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>

namespace quillmarsh::local {

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
}

// ----- the plan ----------------------------------------------------------------------------------------

void Plan::finish(bool blocked) {
  const size_t K = nodes.size();
  std::vector<int> consumers(K, 0);
  std::vector<char> read_whole(K, 0);
  for (size_t j = 0; j < K; ++j) {
    for (int in : nodes[j].inputs) {
      if (in < 0) continue;
      ++consumers[size_t(in)];
      if (!blockable(nodes[j].kind)) read_whole[size_t(in)] = 1;
    }
  }
  for (size_t i = 0; i < K; ++i)
    nodes[i].whole = !blocked || !blockable(nodes[i].kind) || i + 1 == K || consumers[i] > 1 || read_whole[i];
}

// ----- the cache ---------------------------------------------------------------------------------------

SubtreeCache::Got SubtreeCache::lookup(const std::string& key, size_t bytes, bool may_wait, PanelPtr& out) {
  std::unique_lock<std::mutex> hold(mu_);
  if (max_bytes_ == 0) return Got::uncached;
  if (bytes > max_bytes_) {
    ++misses_;
    return Got::uncached;
  }
  std::uint64_t waiting_on = 0;  // the entry this thread counts itself a waiter of (ids start at 1)
  for (;;) {
    auto it = map_.find(key);
    if (it == map_.end()) {
      const bool keep = seen_.count(key) > 0;
      if (!keep) remember_locked(key);
      map_.emplace(key, Entry{nullptr, lru_.end(), keep, 0, ++next_id_});
      ++misses_;
      return Got::claimed;
    }
    Entry& e = it->second;
    if (e.panel) {
      ++hits_;
      out = e.panel;
      if (e.keep) lru_.splice(lru_.begin(), lru_, e.lru);
      else if (waiting_on == e.id && --e.waiters == 0) map_.erase(it);
      return Got::hit;
    }
    if (!may_wait) {
      ++misses_;
      return Got::busy;
    }
    if (waiting_on != e.id) {
      ++e.waiters;
      waiting_on = e.id;
    }
    ready_.wait(hold);
  }
}

void SubtreeCache::remember_locked(const std::string& key) {
  seen_.emplace(key, 0);
  seen_order_.push_back(key);
  while (seen_order_.size() > kSeenKeys) {
    seen_.erase(seen_order_.front());
    seen_order_.pop_front();
  }
}

void SubtreeCache::fulfil(const std::string& key, const PanelPtr& panel) {
  {
    std::lock_guard<std::mutex> hold(mu_);
    auto it = map_.find(key);
    if (it != map_.end() && !it->second.panel) {
      Entry& e = it->second;
      if (e.keep) {
        e.panel = panel;
        lru_.push_front(key);
        e.lru = lru_.begin();
        bytes_ += panel->cells * sizeof(double);
        evict_locked();
      } else if (e.waiters > 0) {
        e.panel = panel;  // for the waiters only; the last of them lets go of it
      } else {
        map_.erase(it);
      }
    }
  }
  ready_.notify_all();
}

void SubtreeCache::abandon(const std::string& key) {
  {
    std::lock_guard<std::mutex> hold(mu_);
    auto it = map_.find(key);
    if (it != map_.end() && !it->second.panel) map_.erase(it);
  }
  ready_.notify_all();
}

void SubtreeCache::evict_locked() {
  while (bytes_ > max_bytes_ && !lru_.empty()) {
    auto it = map_.find(lru_.back());
    bytes_ -= it->second.panel->cells * sizeof(double);
    map_.erase(it);
    lru_.pop_back();
    ++evictions_;
  }
}

SubtreeCache::Info SubtreeCache::info() {
  std::lock_guard<std::mutex> hold(mu_);
  return {hits_, misses_, evictions_, bytes_, lru_.size(), max_bytes_};
}

void SubtreeCache::clear() {
  {
    std::lock_guard<std::mutex> hold(mu_);
    for (const auto& key : lru_) map_.erase(key);  // panels in flight stay, for their owners to fulfil
    lru_.clear();
    bytes_ = 0;
    seen_.clear();
    seen_order_.clear();
  }
  ready_.notify_all();
}

// ----- operators ---------------------------------------------------------------------------------------

namespace {

// An element-wise or time-series operator over (T x n) cells.
void apply_blockable(const PlanNode& nd, const double* a, const double* b, double* o, size_t T, size_t n) {
  const KernelTable& k = kernels();
  const int w = nd.window;
  switch (nd.kind) {
    case OpKind::ts:
      switch (TsOp(nd.op)) {
        case TsOp::sum: k.ts_sum(a, o, T, n, w); return;
        case TsOp::mean: k.ts_mean(a, o, T, n, w); return;
        case TsOp::std: k.ts_std(a, o, T, n, w); return;
        case TsOp::zscore: k.ts_zscore(a, o, T, n, w); return;
        case TsOp::rank: k.ts_rank(a, o, T, n, w); return;
        case TsOp::delay: k.ts_delay(a, o, T, n, w); return;
        case TsOp::delta: k.ts_delta(a, o, T, n, w); return;
        case TsOp::min: k.ts_min(a, o, T, n, w); return;
        case TsOp::max: k.ts_max(a, o, T, n, w); return;
        case TsOp::decay_linear: k.ts_decay_linear(a, o, T, n, w, min_periods(w, false)); return;
      }
      break;
    case OpKind::ts2:
      if (Ts2Op(nd.op) == Ts2Op::corr) k.ts_corr(a, b, o, T, n, w);
      else k.ts_cov(a, b, o, T, n, w);
      return;
    case OpKind::unary: k.unary(Unary(nd.op), a, o, T * n); return;
    case OpKind::binary: k.binary(Binary(nd.op), a, b, o, T * n); return;
    default: break;
  }
  throw std::logic_error("not an element-wise or time-series operator");
}

// Demeaned within each group of instruments: the group's valid values summed in instrument order.
void group_demean(const double* x, double* o, size_t T, size_t N, const std::vector<std::vector<std::uint32_t>>& groups) {
  for (size_t t = 0; t < T; ++t) {
    const double* row = x + t * N;
    double* out = o + t * N;
    for (const auto& cols : groups) {
      double s = 0.0;
      size_t m = 0;
      for (std::uint32_t n : cols) if (row[n] == row[n]) { s += row[n]; ++m; }
      const double mean = m ? s / double(m) : 0.0;
      for (std::uint32_t n : cols) out[n] = row[n] - mean;
    }
  }
}

// Each valid cell replaced by a statistic of its day's valid values: mean, median or (population) std,
// computed as NumPy's nan-aware reductions compute them (missing values as zeros in a pairwise sum).
void reduce_rows(ReduceOp op, const double* x, double* o, size_t T, size_t N) {
  std::vector<double> tmp(N);
  for (size_t t = 0; t < T; ++t) {
    const double* row = x + t * N;
    double* out = o + t * N;
    double agg;
    size_t m = 0;
    if (op == ReduceOp::median) {
      for (size_t n = 0; n < N; ++n) if (row[n] == row[n]) tmp[m++] = row[n];
      if (m == 0) {
        agg = kNaN;
      } else {
        const auto mid = tmp.begin() + std::ptrdiff_t(m / 2);
        std::nth_element(tmp.begin(), mid, tmp.begin() + std::ptrdiff_t(m));
        agg = m % 2 ? *mid : (*std::max_element(tmp.begin(), mid) + *mid) / 2.0;
      }
    } else {
      for (size_t n = 0; n < N; ++n) {
        const bool ok = row[n] == row[n];
        tmp[n] = ok ? row[n] : 0.0;
        m += ok;
      }
      const double mean = pairwise_sum(tmp.data(), N) / double(m);
      if (op == ReduceOp::mean) {
        agg = mean;
      } else {
        for (size_t n = 0; n < N; ++n) {
          const double d = row[n] == row[n] ? row[n] - mean : 0.0;
          tmp[n] = d * d;
        }
        agg = m > 0 ? std::sqrt(pairwise_sum(tmp.data(), N) / double(m)) : kNaN;
      }
    }
    for (size_t n = 0; n < N; ++n) out[n] = row[n] == row[n] ? agg : kNaN;
  }
}

void apply_whole(const PlanNode& nd, const double* x, const double* aux, double* o, const Market& m) {
  const KernelTable& k = kernels();
  const size_t T = m.T, N = m.N;
  switch (nd.kind) {
    case OpKind::cs:
      switch (CsOp(nd.op)) {
        case CsOp::rank: k.cs_rank(x, o, T, N); return;
        case CsOp::zscore: k.cs_zscore(x, o, T, N); return;
        case CsOp::demean: k.cs_demean(x, o, T, N); return;
        case CsOp::scale: k.cs_scale(x, o, T, N); return;
      }
      break;
    case OpKind::group: group_demean(x, o, T, N, *m.groups); return;
    case OpKind::filter:
      for (size_t i = 0, n = T * N; i < n; ++i) o[i] = aux[i] >= nd.threshold ? x[i] : kNaN;
      return;
    case OpKind::reduce: reduce_rows(ReduceOp(nd.op), x, o, T, N); return;
    default: break;
  }
  throw std::logic_error("not a whole-panel operator");
}

// Buffers of one thread's blocks: kept between evaluations, so that no operator allocates.
class Arena {
 public:
  double* take(size_t cells) {
    if (cells != cells_) {
      bufs_.clear();
      free_.clear();
      cells_ = cells;
    }
    if (free_.empty()) {
      bufs_.emplace_back(new double[cells]);
      return bufs_.back().get();
    }
    double* p = free_.back();
    free_.pop_back();
    return p;
  }
  void give(double* p) { free_.push_back(p); }
  void give_all() {
    free_.clear();
    for (auto& b : bufs_) free_.push_back(b.get());
  }

 private:
  size_t cells_ = 0;
  std::vector<std::unique_ptr<double[]>> bufs_;
  std::vector<double*> free_;
};

thread_local Arena arena;

// The run of blockable operators that ends at whole node `root`, block by block, into `out`.
void run_segment(const Plan& plan, size_t root, const std::vector<const double*>& full, double* out,
                 const Market& m, size_t block) {
  const auto& nodes = plan.nodes;
  // The run: root and every blockable operator below it that is not a whole panel, in post-order.
  std::vector<int> run{int(root)};
  for (size_t q = 0; q < run.size(); ++q)
    for (int in : nodes[size_t(run[q])].inputs)
      if (in >= 0 && !nodes[size_t(in)].whole) run.push_back(in);
  std::sort(run.begin(), run.end());
  // Slots: the run's own operators, then the whole panels it reads (by their index into `full`).
  const size_t R = run.size();
  std::vector<int> outside;  // indices into full
  auto slot_of = [&](int ref) -> size_t {
    if (ref >= 0 && !nodes[size_t(ref)].whole)
      return size_t(std::lower_bound(run.begin(), run.end(), ref) - run.begin());
    const int f = ref >= 0 ? ref : int(nodes.size()) + (-1 - ref);
    auto it = std::find(outside.begin(), outside.end(), f);
    if (it == outside.end()) { outside.push_back(f); return R + outside.size() - 1; }
    return R + size_t(it - outside.begin());
  };
  std::vector<std::vector<size_t>> ins(R);
  for (size_t r = 0; r < R; ++r)
    for (int in : nodes[size_t(run[r])].inputs) ins[r].push_back(slot_of(in));
  const size_t S = R + outside.size();
  std::vector<size_t> last(S, 0);
  for (size_t r = 0; r < R; ++r) for (size_t s : ins[r]) last[s] = r;

  const size_t T = m.T, N = m.N;
  const size_t b = block == 0 || block >= N ? N : block;
  arena.give_all();  // runs do not nest: whatever an earlier run left taken is free again
  std::vector<double*> buf(S, nullptr);
  std::vector<char> mine(S, 0);  // buffers of the arena, given back after their last use
  for (size_t c0 = 0; c0 < N; c0 += b) {
    const size_t n = std::min(b, N - c0);
    for (size_t r = 0; r < R; ++r) {
      const double* in[2] = {nullptr, nullptr};
      for (size_t j = 0; j < ins[r].size() && j < 2; ++j) {
        const size_t s = ins[r][j];
        if (s >= R && !buf[s]) {  // a whole panel's columns of this block
          const double* src = full[size_t(outside[s - R])];
          if (b == N) {
            buf[s] = const_cast<double*>(src);
          } else {
            double* dst = arena.take(T * b);
            for (size_t t = 0; t < T; ++t) std::copy(src + t * N + c0, src + t * N + c0 + n, dst + t * n);
            buf[s] = dst;
            mine[s] = 1;
          }
        }
        in[j] = buf[s];
      }
      double* o;
      if (r + 1 == R && b == N) o = out;
      else { o = arena.take(T * b); mine[r] = 1; }
      apply_blockable(nodes[size_t(run[r])], in[0], in[1], o, T, n);
      buf[r] = o;
      for (size_t s : ins[r]) {
        if (last[s] == r && buf[s]) {
          if (mine[s]) arena.give(buf[s]);
          buf[s] = nullptr;
          mine[s] = 0;
        }
      }
    }
    if (b != N) {
      const double* src = buf[R - 1];
      for (size_t t = 0; t < T; ++t) std::copy(src + t * n, src + (t + 1) * n, out + t * N + c0);
      arena.give(buf[R - 1]);
    }
    std::fill(buf.begin(), buf.end(), nullptr);
    std::fill(mine.begin(), mine.end(), 0);
  }
}

// Whether a panel earns its place in the cache: a signal (whole graphs come again), or an operator that
// costs more than the copy that writing its panel to the cache's cold memory amounts to. Element-wise
// operators, delays and differences are recomputed from their inputs (which may be cached) instead.
bool worth_keeping(const PlanNode& nd, bool root) {
  if (root) return true;
  switch (nd.kind) {
    case OpKind::ts: return TsOp(nd.op) != TsOp::delay && TsOp(nd.op) != TsOp::delta;
    case OpKind::unary: case OpKind::binary: case OpKind::filter: return false;
    default: return true;
  }
}

// Claims on the cache that are given up unless fulfilled (an exception on the way out of execute).
struct Claims {
  SubtreeCache* cache;
  std::vector<const std::string*> open;
  ~Claims() {
    for (const auto* key : open) if (key) cache->abandon(*key);
  }
};

}  // namespace

PanelPtr execute(const Plan& plan, const std::vector<const double*>& leaves, const Market& m, size_t block,
                 SubtreeCache* cache) {
  const auto& nodes = plan.nodes;
  const size_t K = nodes.size(), cells = m.T * m.N;
  std::vector<PanelPtr> panel(K);
  std::vector<char> needed(K, 0), hit(K, 0);
  std::vector<int> claim(K, -1);  // index into claims.open
  Claims claims{cache, {}};
  needed[K - 1] = 1;
  // From the root down: every operator is seen after all that read it, so a panel found in the cache
  // spares its whole subtree unless something else needs part of it.
  for (size_t i = K; i-- > 0;) {
    if (!needed[i]) continue;
    const PlanNode& nd = nodes[i];
    if (nd.whole && cache && worth_keeping(nd, i + 1 == K)) {
      switch (cache->lookup(nd.key, cells * sizeof(double), claims.open.empty(), panel[i])) {
        case SubtreeCache::Got::hit: hit[i] = 1; break;
        case SubtreeCache::Got::claimed:
          claim[i] = int(claims.open.size());
          claims.open.push_back(&nd.key);
          break;
        default: break;
      }
    }
    if (!hit[i]) for (int in : nd.inputs) if (in >= 0) needed[size_t(in)] = 1;
  }
  // Whole panels by index: the operators', then the leaves.
  std::vector<const double*> full(K + leaves.size(), nullptr);
  for (size_t l = 0; l < leaves.size(); ++l) full[K + l] = leaves[l];
  auto source = [&](int ref) { return ref >= 0 ? full[size_t(ref)] : full[K + size_t(-1 - ref)]; };
  for (size_t i = 0; i < K; ++i) {
    if (hit[i]) full[i] = panel[i]->data;
    if (!needed[i] || hit[i] || !nodes[i].whole) continue;
    const PlanNode& nd = nodes[i];
    panel[i] = std::make_shared<PanelBuffer>(cells);
    if (Plan::blockable(nd.kind)) {
      run_segment(plan, i, full, panel[i]->data, m, block);
    } else {
      const double* aux = nd.inputs.size() > 1 ? source(nd.inputs[1]) : nullptr;
      apply_whole(nd, source(nd.inputs[0]), aux, panel[i]->data, m);
    }
    full[i] = panel[i]->data;
    if (claim[i] >= 0) {
      cache->fulfil(nd.key, panel[i]);
      claims.open[size_t(claim[i])] = nullptr;
    }
  }
  return panel[K - 1];
}

// ----- sums and the statistics of a book ----------------------------------------------------------------

double pairwise_sum(const double* a, size_t n) {
  if (n < 8) {
    double res = 0.0;
    for (size_t i = 0; i < n; ++i) res += a[i];
    return res;
  }
  if (n <= 128) {
    double r[8];
    for (int j = 0; j < 8; ++j) r[j] = a[j];
    size_t i = 8;
    for (; i < n - n % 8; i += 8)
      for (int j = 0; j < 8; ++j) r[j] += a[i + size_t(j)];
    double res = ((r[0] + r[1]) + (r[2] + r[3])) + ((r[4] + r[5]) + (r[6] + r[7]));
    for (; i < n; ++i) res += a[i];
    return res;
  }
  size_t n2 = n / 2;
  n2 -= n2 % 8;
  return pairwise_sum(a, n2) + pairwise_sum(a + n2, n - n2);
}

namespace {
constexpr double kTradingDays = 252.0, kHalfBook = 0.5, kMinTurnover = 0.125;

double sharpe_of(const double* p, size_t n, double total, std::vector<double>& tmp) {
  if (n < 2) return 0.0;
  const double mean = total / double(n);
  tmp.resize(n);
  for (size_t i = 0; i < n; ++i) { const double d = p[i] - mean; tmp[i] = d * d; }
  const double sd = std::sqrt(pairwise_sum(tmp.data(), n) / double(n - 1));
  return sd > 0 ? mean / sd * std::sqrt(kTradingDays) : 0.0;
}

ColumnStats column_stats(const double* p, size_t n, double total_traded, std::vector<double>& tmp) {
  ColumnStats c{};
  const double total = pairwise_sum(p, n);
  c.sharpe = sharpe_of(p, n, total, tmp);
  c.returns = n ? kTradingDays * total / double(n) / kHalfBook : 0.0;
  c.turnover = n ? total_traded / double(n) : 0.0;
  c.fitness = c.sharpe * std::sqrt(std::fabs(c.returns) / std::max(c.turnover, kMinTurnover));
  c.margin = total_traded > 0 ? total / total_traded : 0.0;
  double cum = 0.0, peak = 0.0, worst = -std::numeric_limits<double>::infinity();
  for (size_t i = 0; i < n; ++i) {
    cum += p[i];
    const double top = std::max(cum, 0.0);
    peak = i == 0 ? top : std::max(peak, top);
    worst = std::max(worst, peak - cum);
  }
  c.drawdown = n ? worst / kHalfBook : 0.0;
  return c;
}
}  // namespace

BookStats book_stats(const DailySeries& s, double* net_pnl, const double* tradable, size_t T, size_t n,
                     double cost) {
  BookStats b{};
  for (size_t t = 0; t < T; ++t) net_pnl[t] = s.pnl[t] - cost * s.traded[t];
  n = std::min(n, T);
  std::vector<double> tmp;
  const double traded = pairwise_sum(s.traded, n);
  b.gross = column_stats(s.pnl, n, traded, tmp);
  b.net = column_stats(net_pnl, n, traded, tmp);
  const double days = double(n);
  b.long_count = pairwise_sum(s.longs, n) / days;
  b.short_count = pairwise_sum(s.shorts, n) / days;
  tmp.resize(n);
  for (size_t t = 0; t < n; ++t) tmp[t] = std::fabs(s.net[t]);
  b.delta_exposure = pairwise_sum(tmp.data(), n) / days;
  double mx = n ? s.max_share[0] : kNaN;
  for (size_t t = 1; t < n; ++t) mx = (mx >= s.max_share[t] || mx != mx) ? mx : s.max_share[t];  // NaN wins
  b.max_weight = mx;
  const double abs_total = pairwise_sum(s.abs_sum, n);
  b.abs_weight_sum_mean = abs_total / days;
  b.any_book = false;
  for (size_t t = 0; t < n; ++t) b.any_book = b.any_book || s.abs_sum[t] > 0;
  if (b.any_book) {
    for (size_t t = 0; t < n; ++t) tmp[t] = s.held[t] / tradable[t];
    b.coverage = pairwise_sum(tmp.data(), n) / days;
    b.illiquid_share = pairwise_sum(s.flagged, n) / abs_total;
  } else {
    b.coverage = kNaN;
    b.illiquid_share = 0.0;
  }
  size_t years = 0, positive = 0;
  const size_t year = size_t(kTradingDays);
  for (size_t i = 0; i < n; i += year) {
    if (n - i < year / 2) continue;
    ++years;
    positive += pairwise_sum(s.pnl + i, std::min(year, n - i)) > 0;
  }
  b.positive_year_fraction = years ? double(positive) / double(years) : 0.0;
  const size_t held_out = T > n + 1 ? T - 1 - n : 0;  // the days after the sample but the last
  b.held_out_sharpe = sharpe_of(s.pnl + n, held_out, pairwise_sum(s.pnl + n, held_out), tmp);
  return b;
}

}  // namespace quillmarsh::local

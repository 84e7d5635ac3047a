// Python binding of the panel kernels: quillmarsh.local._evaluator.
// Each entry point checks its arrays while it holds the GIL, allocates the output, and runs the kernel
// with the GIL released, so that evaluations on several threads proceed in parallel.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kernels.hpp"
#include "panel_pool.hpp"
#include "plan.hpp"

namespace py = pybind11;
namespace ql = quillmarsh::local;

namespace {

using Panel = py::array_t<double>;

struct View { const double* data; size_t T; size_t N; };

View panel_view(const py::array& a, const char* what) {
  if (!a.dtype().is(py::dtype::of<double>()))
    throw py::type_error(std::string(what) + " must be a float64 array, got dtype " +
                         std::string(py::str(a.dtype())));
  if (a.ndim() != 2)
    throw py::value_error(std::string(what) + " must be a 2-D (days, instruments) array, got " +
                          std::to_string(a.ndim()) + " dimensions");
  if (!(a.flags() & py::array::c_style))
    throw py::value_error(std::string(what) + " must be C-contiguous");
  return {static_cast<const double*>(a.data()), size_t(a.shape(0)), size_t(a.shape(1))};
}

void same_shape(const View& a, const View& b) {
  if (a.T != b.T || a.N != b.N) throw py::value_error("panels must have the same shape");
}

Panel new_panel(const View& v) {
  double* data = ql::panel_pool().take(v.T * v.N * sizeof(double));
  py::capsule owner(data, [](void* p) { ql::panel_pool().give(static_cast<double*>(p)); });
  return Panel({py::ssize_t(v.T), py::ssize_t(v.N)}, data, owner);
}

void check_window(int w, const char* what) {
  if (w < 1) throw py::value_error(std::string(what) + " must be at least 1, got " + std::to_string(w));
}

Panel ts(const std::string& op, const py::array& x, int window) {
  View v = panel_view(x, "x");
  check_window(window, op == "delay" || op == "delta" ? "lag" : "window");
  Panel out = new_panel(v);
  double* o = out.mutable_data();
  using Fn = void (*)(const double*, double*, size_t, size_t, int);
  Fn fn = nullptr;
  if (op == "sum") fn = ql::kernels().ts_sum;
  else if (op == "mean") fn = ql::kernels().ts_mean;
  else if (op == "std") fn = ql::kernels().ts_std;
  else if (op == "zscore") fn = ql::kernels().ts_zscore;
  else if (op == "rank") fn = ql::kernels().ts_rank;
  else if (op == "delay") fn = ql::kernels().ts_delay;
  else if (op == "delta") fn = ql::kernels().ts_delta;
  else if (op == "min") fn = ql::kernels().ts_min;
  else if (op == "max") fn = ql::kernels().ts_max;
  else if (op != "decay_linear") throw py::value_error("unknown time-series operator '" + op + "'");
  {
    py::gil_scoped_release release;
    if (fn) fn(v.data, o, v.T, v.N, window);
    else ql::kernels().ts_decay_linear(v.data, o, v.T, v.N, window, ql::min_periods(window, false));
  }
  return out;
}

Panel ts2(const std::string& op, const py::array& x, const py::array& y, int window) {
  View a = panel_view(x, "x"), b = panel_view(y, "y");
  same_shape(a, b);
  check_window(window, "window");
  if (op != "corr" && op != "cov") throw py::value_error("unknown two-input time-series operator '" + op + "'");
  Panel out = new_panel(a);
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  if (op == "corr") ql::kernels().ts_corr(a.data, b.data, o, a.T, a.N, window);
  else ql::kernels().ts_cov(a.data, b.data, o, a.T, a.N, window);
  return out;
}

Panel cs(const std::string& op, const py::array& x) {
  View v = panel_view(x, "x");
  if (op != "rank" && op != "zscore" && op != "demean" && op != "scale")
    throw py::value_error("unknown cross-sectional operator '" + op + "'");
  Panel out = new_panel(v);
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  if (op == "rank") ql::kernels().cs_rank(v.data, o, v.T, v.N);
  else if (op == "zscore") ql::kernels().cs_zscore(v.data, o, v.T, v.N);
  else if (op == "demean") ql::kernels().cs_demean(v.data, o, v.T, v.N);
  else ql::kernels().cs_scale(v.data, o, v.T, v.N);
  return out;
}

Panel unary(const std::string& op, const py::array& x) {
  View v = panel_view(x, "x");
  ql::Unary u;
  if (op == "neg") u = ql::Unary::neg;
  else if (op == "abs") u = ql::Unary::abs;
  else if (op == "sign") u = ql::Unary::sign;
  else if (op == "slog") u = ql::Unary::slog;
  else if (op == "ssqrt") u = ql::Unary::ssqrt;
  else if (op == "square") u = ql::Unary::square;
  else if (op == "inverse") u = ql::Unary::inverse;
  else throw py::value_error("unknown unary operator '" + op + "'");
  Panel out = new_panel(v);
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  ql::kernels().unary(u, v.data, o, v.T * v.N);
  return out;
}

Panel binary(const std::string& op, const py::array& x, const py::array& y) {
  View a = panel_view(x, "x"), b = panel_view(y, "y");
  same_shape(a, b);
  ql::Binary f;
  if (op == "add") f = ql::Binary::add;
  else if (op == "sub") f = ql::Binary::sub;
  else if (op == "mul") f = ql::Binary::mul;
  else if (op == "div") f = ql::Binary::div;
  else if (op == "min") f = ql::Binary::min;
  else if (op == "max") f = ql::Binary::max;
  else throw py::value_error("unknown binary operator '" + op + "'");
  Panel out = new_panel(a);
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  ql::kernels().binary(f, a.data, b.data, o, a.T * a.N);
  return out;
}

ql::Normalization parse_normalization(const std::string& normalization, int decay, double truncation) {
  ql::Normalization norm;
  if (normalization == "none") norm = ql::Normalization::none;
  else if (normalization == "rank") norm = ql::Normalization::rank;
  else if (normalization == "zscore") norm = ql::Normalization::zscore;
  else if (normalization == "rescale") norm = ql::Normalization::rescale;
  else throw py::value_error("unknown normalization '" + normalization + "'");
  if (decay < 0) throw py::value_error("decay must not be negative, got " + std::to_string(decay));
  if (!(truncation >= 0.0 && truncation <= 1.0))
    throw py::value_error("truncation must lie in [0, 1]");
  return norm;
}

Panel book_weights(const py::array& signal, const std::string& normalization, int decay, double truncation) {
  View v = panel_view(signal, "signal");
  ql::Normalization norm = parse_normalization(normalization, decay, truncation);
  Panel out = new_panel(v);
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  ql::kernels().book_weights(v.data, o, v.T, v.N, norm, decay, truncation);
  return out;
}

struct Series {
  std::vector<py::array_t<double>> cols;
  ql::DailySeries s;
  explicit Series(size_t T) {
    for (int i = 0; i < 9; ++i) cols.emplace_back(py::ssize_t(T));
    s = {cols[0].mutable_data(), cols[1].mutable_data(), cols[2].mutable_data(), cols[3].mutable_data(),
         cols[4].mutable_data(), cols[5].mutable_data(), cols[6].mutable_data(), cols[7].mutable_data(),
         cols[8].mutable_data()};
  }
  py::tuple tuple() const {
    py::tuple out(9);
    for (int i = 0; i < 9; ++i) out[i] = cols[i];
    return out;
  }
};

// The flags are one byte a cell: a bool or uint8 panel, nonzero meaning flagged.
const std::uint8_t* optional_flag(const py::object& flag, const View& like) {
  if (flag.is_none()) return nullptr;
  py::array a = flag.cast<py::array>();
  if (!a.dtype().is(py::dtype::of<bool>()) && !a.dtype().is(py::dtype::of<std::uint8_t>()))
    throw py::type_error("flag must be a bool or uint8 array, got dtype " + std::string(py::str(a.dtype())));
  if (a.ndim() != 2 || size_t(a.shape(0)) != like.T || size_t(a.shape(1)) != like.N)
    throw py::value_error("flag must have the shape of the signal");
  if (!(a.flags() & py::array::c_style)) throw py::value_error("flag must be C-contiguous");
  return static_cast<const std::uint8_t*>(a.data());
}

py::tuple book_daily(const py::array& weights, const py::array& fwd_returns, const py::object& flag) {
  View w = panel_view(weights, "weights"), r = panel_view(fwd_returns, "fwd_returns");
  same_shape(w, r);
  const std::uint8_t* f = optional_flag(flag, w);
  Series out(w.T);
  {
    py::gil_scoped_release release;
    ql::kernels().book_daily(w.data, r.data, f, w.T, w.N, out.s);
  }
  return out.tuple();
}

py::tuple book_series(const py::array& signal, const py::array& fwd_returns, const std::string& normalization,
                      int decay, double truncation, const py::object& flag) {
  View v = panel_view(signal, "signal"), r = panel_view(fwd_returns, "fwd_returns");
  same_shape(v, r);
  ql::Normalization norm = parse_normalization(normalization, decay, truncation);
  const std::uint8_t* f = optional_flag(flag, v);
  Series out(v.T);
  {
    py::gil_scoped_release release;
    ql::kernels().book_series(v.data, r.data, f, v.T, v.N, norm, decay, truncation, out.s);
  }
  return out.tuple();
}


// ----- whole graphs ------------------------------------------------------------------------------------

// Instruments per block of a run of element-wise and time-series operators; 0: whole panels, every
// operator's result a panel of its own (and a candidate for the cache). Measured on the machine this was
// tuned on (2 cores, 1 MB L2 each, 32 MB L3, 500 x 1,260 panels), blocks of 8 to 128 instruments were
// slower than whole panels for every graph shape tried, and on the search stream (cache off, one thread)
// by 15-25%: the time-series kernels are bound by arithmetic rather than memory (0.5-1.5 ms an operator
// against 0.1 ms to copy a panel), most graphs of a search are one to three operators deep with a feature
// (a whole panel, read from memory either way) at the bottom and the signal (a whole panel) at the top,
// so a run rarely has an intermediate to keep in the L2, while a block pays for gathering its columns from
// rows 4 kB apart and for the kernels' per-row work on short rows. So whole panels are the default; the
// blocked path gives the same bits and stays selectable (bench_evaluator.py --blocks measures it).
constexpr size_t kDefaultBlock = 0;

// The position of `op` among `names`, which list an enumeration's members in order.
int parse_enum(const std::string& op, std::initializer_list<const char*> names, const char* what) {
  int i = 0;
  for (const char* n : names) {
    if (op == n) return i;
    ++i;
  }
  throw py::value_error(std::string("unknown ") + what + " operator '" + op + "'");
}

// A graph's evaluator: the market's shape and groups, the subtree cache shared by every thread that
// evaluates through it, and the instruments per block.
class Engine {
 public:
  Engine(const py::array& sector, size_t T, size_t N, size_t cache_bytes)
      : T_(T), N_(N), cache_(std::make_unique<ql::SubtreeCache>(cache_bytes)) {
    auto codes = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(sector);
    if (!codes || codes.ndim() != 1 || size_t(codes.shape(0)) != N)
      throw py::value_error("sector must be one integer code per instrument");
    std::map<std::int64_t, std::vector<std::uint32_t>> by_code;
    for (size_t n = 0; n < N; ++n) by_code[codes.at(py::ssize_t(n))].push_back(std::uint32_t(n));
    for (auto& [code, cols] : by_code) groups_.push_back(std::move(cols));
  }

  // nodes: (kind, op, window, threshold, inputs, key) in post-order; leaves: the panels that inputs
  // below zero name (-1 - i). Returns the root's panel, read-only when the cache is on.
  py::array signal(const py::list& nodes, const py::list& leaves) {
    ql::Plan plan;
    plan.nodes.reserve(nodes.size());
    for (const auto& item : nodes) {
      auto t = item.cast<py::tuple>();
      if (t.size() != 6) throw py::value_error("a plan node is (kind, op, window, threshold, inputs, key)");
      ql::PlanNode nd;
      const auto kind = t[0].cast<std::string>(), op = t[1].cast<std::string>();
      if (kind == "ts") {
        nd.kind = ql::OpKind::ts;
        nd.op = parse_enum(op, {"sum", "mean", "std", "zscore", "rank", "delay", "delta", "min", "max",
                                          "decay_linear"}, "time-series");
      } else if (kind == "ts2") {
        nd.kind = ql::OpKind::ts2;
        nd.op = parse_enum(op, {"corr", "cov"}, "two-input time-series");
      } else if (kind == "cs") {
        nd.kind = ql::OpKind::cs;
        nd.op = parse_enum(op, {"rank", "zscore", "demean", "scale"}, "cross-sectional");
      } else if (kind == "unary") {
        nd.kind = ql::OpKind::unary;
        nd.op = parse_enum(op, {"neg", "abs", "sign", "slog", "ssqrt", "square", "inverse"}, "unary");
      } else if (kind == "binary") {
        nd.kind = ql::OpKind::binary;
        nd.op = parse_enum(op, {"add", "sub", "mul", "div", "min", "max"}, "binary");
      } else if (kind == "group") {
        nd.kind = ql::OpKind::group;
        parse_enum(op, {"demean"}, "group");
      } else if (kind == "filter") {
        nd.kind = ql::OpKind::filter;
      } else if (kind == "reduce") {
        nd.kind = ql::OpKind::reduce;
        nd.op = parse_enum(op, {"mean", "median", "std"}, "reduction");
      } else {
        throw py::value_error("unknown operator kind '" + kind + "'");
      }
      nd.window = t[2].cast<int>();
      nd.threshold = t[3].cast<double>();
      for (const auto& in : t[4].cast<py::list>()) nd.inputs.push_back(in.cast<int>());
      nd.key = t[5].cast<std::string>();
      const bool two = nd.kind == ql::OpKind::ts2 || nd.kind == ql::OpKind::binary || nd.kind == ql::OpKind::filter;
      if (nd.inputs.size() != (two ? 2u : 1u))
        throw py::value_error("operator '" + kind + ":" + op + "' takes " + (two ? "2" : "1") + " input(s)");
      if ((nd.kind == ql::OpKind::ts || nd.kind == ql::OpKind::ts2) && nd.window < 1)
        throw py::value_error("window must be at least 1, got " + std::to_string(nd.window));
      for (int in : nd.inputs)
        if (in >= int(plan.nodes.size()) || -1 - in >= int(leaves.size()))
          throw py::value_error("plan input " + std::to_string(in) + " names no earlier operator or leaf");
      plan.nodes.push_back(std::move(nd));
    }
    if (plan.nodes.empty()) throw py::value_error("a plan needs at least one operator");
    std::vector<const double*> ptrs;
    for (const auto& leaf : leaves) {
      View v = panel_view(leaf.cast<py::array>(), "leaf");
      if (v.T != T_ || v.N != N_) throw py::value_error("leaf panels must have the market's shape");
      ptrs.push_back(v.data);
    }
    plan.finish(block != 0 && block < N_);
    ql::PanelPtr out;
    {
      py::gil_scoped_release release;
      ql::Market m{T_, N_, &groups_};
      out = ql::execute(plan, ptrs, m, block, cache_->max_bytes() ? cache_.get() : nullptr);
    }
    auto* holder = new ql::PanelPtr(out);
    py::capsule owner(holder, [](void* p) { delete static_cast<ql::PanelPtr*>(p); });
    py::array_t<double> arr({py::ssize_t(T_), py::ssize_t(N_)}, out->data, owner);
    if (cache_->max_bytes()) arr.attr("setflags")(py::arg("write") = false);
    return arr;
  }

  py::dict cache_info() {
    const auto i = cache_->info();
    py::dict d;
    d["hits"] = i.hits;
    d["misses"] = i.misses;
    d["evictions"] = i.evictions;
    d["bytes"] = i.bytes;
    d["entries"] = i.entries;
    d["max_bytes"] = i.max_bytes;
    return d;
  }
  void cache_clear() { cache_->clear(); }

  size_t block = kDefaultBlock;

 private:
  size_t T_, N_;
  std::vector<std::vector<std::uint32_t>> groups_;
  std::unique_ptr<ql::SubtreeCache> cache_;
};

// The book of a signal and its statistics over the first `in_sample` days, in one call.
py::tuple backtest(const py::array& signal, const py::array& fwd_returns, const std::string& normalization,
                   int decay, double truncation, const py::object& flag, const py::array& tradable,
                   size_t in_sample, double cost) {
  View v = panel_view(signal, "signal"), r = panel_view(fwd_returns, "fwd_returns");
  same_shape(v, r);
  ql::Normalization norm = parse_normalization(normalization, decay, truncation);
  const std::uint8_t* f = optional_flag(flag, v);
  auto trad = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(tradable);
  if (!trad || trad.ndim() != 1 || size_t(trad.shape(0)) != v.T)
    throw py::value_error("tradable must be one float per day");
  Series out(v.T);
  py::array_t<double> net(py::ssize_t(v.T));
  double* net_pnl = net.mutable_data();
  const double* tr = trad.data();
  ql::BookStats b;
  {
    py::gil_scoped_release release;
    ql::kernels().book_series(v.data, r.data, f, v.T, v.N, norm, decay, truncation, out.s);
    b = ql::book_stats(out.s, net_pnl, tr, v.T, in_sample, cost);
  }
  py::dict per_column;
  for (auto [name, c] : {std::pair<const char*, const ql::ColumnStats*>{"gross_returns", &b.gross},
                         {"net_returns", &b.net}}) {
    const std::string p(name);
    per_column[py::str(p + "_sharpe")] = c->sharpe;
    per_column[py::str(p + "_returns")] = c->returns;
    per_column[py::str(p + "_turnover")] = c->turnover;
    per_column[py::str(p + "_fitness")] = c->fitness;
    per_column[py::str(p + "_quality_score")] = c->fitness;
    per_column[py::str(p + "_margin")] = c->margin;
    per_column[py::str(p + "_drawdown")] = c->drawdown;
  }
  py::dict book;
  book["long_count"] = b.long_count;
  book["short_count"] = b.short_count;
  book["delta_exposure"] = b.delta_exposure;
  book["max_weight"] = b.max_weight;
  book["abs_weight_sum_mean"] = b.abs_weight_sum_mean;
  book["coverage"] = b.any_book ? py::object(py::float_(b.coverage)) : py::object(py::none());
  book["illiquid_share"] = b.illiquid_share;
  book["positive_year_fraction"] = b.positive_year_fraction;
  book["held_out_sharpe"] = b.held_out_sharpe;
  book["any_book"] = b.any_book;
  return py::make_tuple(out.cols[0], net, per_column, book);
}

double pairwise_sum(const py::array& a) {
  auto x = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
  if (!x || x.ndim() != 1) throw py::value_error("pairwise_sum takes a 1-D float array");
  return ql::pairwise_sum(x.data(), size_t(x.shape(0)));
}

}  // namespace

PYBIND11_MODULE(_evaluator, m) {
  m.doc() = "Panel kernels of the local backtester (float64, C-contiguous, (days, instruments)).";
  m.def("ts", &ts, py::arg("op"), py::arg("x"), py::arg("window"),
        "Rolling operator over the last `window` days: sum, mean, std, zscore, min, max, rank, "
        "decay_linear, delay, delta.\n\n"
        "Args:\n"
        "    op: the operator's name.\n"
        "    x: a float64, C-contiguous (days, instruments) panel; NaN marks a missing value.\n"
        "    window: days in the window, at least 1.\n\n"
        "Returns:\n"
        "    numpy.ndarray: a new panel of the shape of `x`; NaN where the window holds too few values.\n\n"
        "Raises:\n"
        "    TypeError: a panel is not float64.\n"
        "    ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,\n"
        "        or a bad window.");
  m.def("ts2", &ts2, py::arg("op"), py::arg("x"), py::arg("y"), py::arg("window"),
        "Rolling two-input operator: corr, cov.\n\n"
        "Args:\n"
        "    op: \"corr\" or \"cov\".\n"
        "    x, y: float64, C-contiguous (days, instruments) panels of one shape.\n"
        "    window: days in the window, at least 1.\n\n"
        "Returns:\n"
        "    numpy.ndarray: a new panel of that shape; NaN where the window holds too few pairs.\n\n"
        "Raises:\n"
        "    TypeError: a panel is not float64.\n"
        "    ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,\n"
        "        or a bad window.");
  m.def("cs", &cs, py::arg("op"), py::arg("x"), 
        "Cross-sectional operator: rank, zscore, demean, scale.\n\n"
        "Args:\n"
        "    op: the operator's name, applied to each day's row.\n"
        "    x: a float64, C-contiguous (days, instruments) panel; NaN cells are left out and stay NaN.\n\n"
        "Returns:\n"
        "    numpy.ndarray: a new panel of the shape of `x`.\n\n"
        "Raises:\n"
        "    TypeError: a panel is not float64.\n"
        "    ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,\n"
        "        or a bad window.");
  m.def("unary", &unary, py::arg("op"), py::arg("x"),
        "Element-wise: neg, abs, sign, slog, ssqrt, square, inverse.\n\n"
        "Args:\n"
        "    op: the operator's name.\n"
        "    x: a float64, C-contiguous (days, instruments) panel.\n\n"
        "Returns:\n"
        "    numpy.ndarray: a new panel of the shape of `x`.\n\n"
        "Raises:\n"
        "    TypeError: a panel is not float64.\n"
        "    ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,\n"
        "        or a bad window.");
  m.def("binary", &binary, py::arg("op"), py::arg("x"), py::arg("y"),
        "Element-wise: add, sub, mul, div, min, max.\n\n"
        "Args:\n"
        "    op: the operator's name.\n"
        "    x, y: float64, C-contiguous (days, instruments) panels of one shape.\n\n"
        "Returns:\n"
        "    numpy.ndarray: a new panel of that shape.\n\n"
        "Raises:\n"
        "    TypeError: a panel is not float64.\n"
        "    ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,\n"
        "        or a bad window.");
  m.def("book_weights", &book_weights, py::arg("signal"), py::arg("normalization"), py::arg("decay"),
        py::arg("truncation"),
        "Dollar-neutral book with unit gross from a raw signal.\n\n"
        "Args:\n"
        "    signal: a float64, C-contiguous (days, instruments) panel of raw signal values.\n"
        "    normalization: \"none\", \"rank\", \"zscore\" or \"rescale\", applied per day.\n"
        "    decay: days of linear decay (0 or 1: none), not negative.\n"
        "    truncation: the largest weight as a share of the book, in [0, 1] (0: no clip).\n\n"
        "Returns:\n"
        "    numpy.ndarray: the weights, a panel of the signal's shape; each day sums to 0 with\n"
        "    sum(|w|) = 1, or is all 0 without a signal.\n\n"
        "Raises:\n"
        "    TypeError: the signal is not float64.\n"
        "    ValueError: an unknown normalization, a negative decay, a truncation outside [0, 1], or a\n"
        "        panel not 2-D or not C-contiguous.");
  m.def("book_daily", &book_daily, py::arg("weights"), py::arg("fwd_returns"), py::arg("flag") = py::none(),
        "Daily (pnl, traded, longs, shorts, net, abs_sum, max_share, held, flagged) of a book.\n\n"
        "Args:\n"
        "    weights: the book, a float64, C-contiguous (days, instruments) panel.\n"
        "    fwd_returns: next-day returns, a panel of the same shape; NaN earns nothing.\n"
        "    flag: None, or a bool/uint8 panel of that shape marking cells to count as flagged.\n\n"
        "Returns:\n"
        "    tuple[numpy.ndarray, ...]: nine float64 arrays of one value per day, in the order above.\n\n"
        "Raises:\n"
        "    TypeError: a panel is not float64, or the flag not bool/uint8.\n"
        "    ValueError: panels not 2-D, not C-contiguous or of different shapes.");
  m.def("book_series", &book_series, py::arg("signal"), py::arg("fwd_returns"), py::arg("normalization"),
        py::arg("decay"), py::arg("truncation"), py::arg("flag") = py::none(),
        "book_weights then book_daily in one pass, without materialising the book.\n\n"
        "Args:\n"
        "    signal, fwd_returns: float64, C-contiguous (days, instruments) panels of one shape.\n"
        "    normalization, decay, truncation: as for book_weights.\n"
        "    flag: as for book_daily.\n\n"
        "Returns:\n"
        "    tuple[numpy.ndarray, ...]: the nine daily series of book_daily.\n\n"
        "Raises:\n"
        "    TypeError, ValueError: as book_weights and book_daily do.");
  m.def("min_periods", &ql::min_periods, py::arg("window"), py::arg("needs_two"),
        "The fewest valid values a rolling window needs before it yields one.\n\n"
        "Args:\n"
        "    window: days in the window.\n"
        "    needs_two: the operator needs at least two values (std, corr, ...).\n\n"
        "Returns:\n"
        "    int: the minimum count of valid values.");
  py::class_<Engine>(m, "Engine", "Plans of whole graphs, run in blocks of instruments, with a subtree cache.")
      .def(py::init<const py::array&, size_t, size_t, size_t>(), py::arg("sector"), py::arg("days"),
           py::arg("instruments"), py::arg("cache_bytes"))
      .def("signal", &Engine::signal, py::arg("nodes"), py::arg("leaves"))
      .def("cache_info", &Engine::cache_info)
      .def("cache_clear", &Engine::cache_clear)
      .def_readwrite("block", &Engine::block, "Instruments per block of a blocked run (0: whole panels).");
  m.def("backtest", &backtest, py::arg("signal"), py::arg("fwd_returns"), py::arg("normalization"),
        py::arg("decay"), py::arg("truncation"), py::arg("flag"), py::arg("tradable"), py::arg("in_sample"),
        py::arg("cost"), "Book, daily (gross, net) pnl and the statistics of both columns in sample.");
  m.def("pairwise_sum", &pairwise_sum, py::arg("a"), "Sum in NumPy's pairwise order.");
  // The instruction set of the kernels in use: "x86-64-v3" where the machine has AVX2 and FMA, else (or
  // with QUILLMARSH_KERNELS=baseline in the environment) "x86-64".
  m.attr("kernel_build") = ql::kernels().name;
}

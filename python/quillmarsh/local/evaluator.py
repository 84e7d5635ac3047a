"""The local evaluator: expression graphs over the embedded market, backtested by the panel kernels.

Book and metrics. From the raw signal S (days x instruments):

1. normalisation per day (``normalization``: "zscore", "rank", "rescale" = divide by the largest absolute
   value, or "none"), then a linear decay over ``decay`` days (0 or 1: none);
2. per day: subtract the cross-sectional mean, scale so that sum|w| = 1 (the book), clip every weight to
   ``truncation`` of the book and re-scale (``truncation`` 0: no clip); instruments without a signal hold 0;
3. daily gross pnl g_t = sum_n w[t,n] * r[t+1,n] (next day's return; a missing return earns nothing),
   traded value v_t = sum_n |w[t,n] - w[t-1,n]|, net pnl g_t - cost * v_t (cost 5 bps by default).

Metrics over the in-sample days (the first 80%; the rest is held out), for each pnl column p_t:

* sharpe = mean(p) / std(p) * sqrt(252) (sample std; 0 for a constant series)
* returns = 252 * mean(p) / 0.5 (annual pnl on half the book)
* turnover = mean(v) (traded value over the book, per day)
* fitness = sharpe * sqrt(|returns| / max(turnover, 0.125)); quality_score = fitness of the primary column
* margin = sum(p) / sum(v) (pnl per unit traded; 0 without trading)
* drawdown = max_t (max_{s<=t} C_s - C_t) / 0.5 with C the cumulative pnl
* long_count, short_count = mean daily number of positive, negative weights
* delta_exposure = mean |sum_n w[t,n]|; max_weight = the largest daily max|w| / sum|w|
* abs_weight_sum_mean = mean sum_n |w[t,n]|
* correlation = the greatest |corr(g, g_k)| over the signals already found in the era's pool
* is_pnl_mi: regress the pnl on the pool's pnls (least squares, no intercept), e the residual, IR = mean(e)
  / std(e); is_pnl_mi = 252 * 0.5 * ln(1 + IR^2) if mean(e) > 0, else 0. It is the Gaussian information, in
  nats per year, of the part of the pnl that the pool does not already explain.
"""
from __future__ import annotations

import collections
import hashlib
import json
import math
import threading

import numpy as np

from . import _evaluator as _k
from .era import LocalEraConfig, PNL_COLUMNS
from .market import Market, load_market
from .vocabulary import FUNCTIONS, FEATURE_RECIPES, FunctionInfo, build_vocabulary, feature_array, obfuscated_name

TRADING_DAYS = 252
HALF_BOOK = 0.5
MIN_TURNOVER = 0.125
IN_SAMPLE_FRACTION = 0.8
DEFAULT_CACHE_BYTES = 512 << 20
BOOK_CACHE_ENTRIES = 2048
DEFAULT_METAPARAMETERS = {"normalization": "zscore", "decay": 0, "truncation": 0.05}
_GRAPH_KEYS = {"type", "node", "children"}
_FUNCTION_TYPES = ("rotation", "filtration", "reduction")
_CONFIG_TYPES = {"int": int, "float": float, "bool": bool, "string": str}


class LocalBacktestStats:
    """What one backtest reports; every attribute a reader of backtest statistics looks for."""

    def __init__(self, **fields):
        self.__dict__.update(fields)

    def __repr__(self):
        return (f"LocalBacktestStats(sharpe={self.sharpe:.3f}, fitness={self.fitness:.3f}, "
                f"turnover={self.turnover:.3f}, passed={self.passed})")


class RegistryEntry:
    """Runtime metadata of one function; ``factory`` computes it on panels."""

    def __init__(self, info: FunctionInfo, factory):
        self.function_type = info.kind
        self.family = info.family
        self.subfamily = info.subfamily
        self.param_schema = info.param_schema()
        self.stateful = info.stateful
        self.arity = len(info.data_inputs)
        self.engine_only = info.engine_only
        self.factory = factory
        self.module_path = __name__
        self.class_name = "LocalEvaluator"


class FunctionRegistry:
    def __init__(self, evaluator):
        self._entries = {name: RegistryEntry(info, _Factory(evaluator, info)) for name, info in FUNCTIONS.items()}

    def has(self, name) -> bool:
        return name in self._entries

    def get_entry(self, name) -> RegistryEntry:
        try:
            return self._entries[name]
        except KeyError:
            raise KeyError(f"no function {name!r} in the local registry") from None

    def names(self):
        return list(self._entries)


class _Factory:
    def __init__(self, evaluator, info):
        self._evaluator, self._info = evaluator, info

    def __call__(self, *inputs, **config):
        return self._evaluator._apply(self._info, list(inputs), config)


# The daily series are short (a few thousand days), so these metrics cost the calls into NumPy more than
# the arithmetic: each is written with as few calls as it takes (plain sums rather than mean and std,
# which are Python-level wrappers).
def _sharpe(p: np.ndarray, total: float | None = None) -> float:
    n = p.size
    if n < 2:
        return 0.0
    mean = float(p.sum() if total is None else total) / n
    d = p - mean
    sd = math.sqrt(float(np.dot(d, d)) / (n - 1))
    return mean / sd * math.sqrt(TRADING_DAYS) if sd > 0 else 0.0


def column_metrics(p: np.ndarray, traded: np.ndarray) -> dict:
    """Sharpe, returns, turnover, fitness, margin and drawdown of one daily pnl column."""
    total = float(p.sum())
    sharpe = _sharpe(p, total)
    returns = TRADING_DAYS * total / p.size / HALF_BOOK if p.size else 0.0
    total_traded = float(traded.sum())
    turnover = total_traded / traded.size if traded.size else 0.0
    fitness = sharpe * math.sqrt(abs(returns) / max(turnover, MIN_TURNOVER))
    margin = total / total_traded if total_traded > 0 else 0.0
    cum = np.cumsum(p)
    drawdown = float(np.max(np.maximum.accumulate(np.maximum(cum, 0.0)) - cum)) / HALF_BOOK if p.size else 0.0
    return {"sharpe": sharpe, "returns": returns, "turnover": turnover, "fitness": fitness,
            "quality_score": fitness, "margin": margin, "drawdown": drawdown}


def pnl_information(y: np.ndarray, pool: list) -> float:
    """Information (nats per year) of the part of pnl ``y`` that the pool's pnls do not explain."""
    e = y
    if pool:
        X = np.column_stack(pool)
        beta, *_ = np.linalg.lstsq(X, y, rcond=None)
        e = y - X @ beta
    if e.size < 2:
        return 0.0
    sd = e.std(ddof=1)
    if not sd > 0 or e.mean() <= 0:
        return 0.0
    ir = e.mean() / sd
    return float(TRADING_DAYS * 0.5 * math.log1p(ir * ir))


class LocalEvaluator:
    """Backtester of the local platform over one market and one era.

    ``evaluate_expression`` computes a graph's raw signal and keeps it for the ``run_backtest`` of the same
    graph on the same thread; both may run on several threads at once (the native code releases the GIL).

    A graph is checked, compiled into a plan (its operators in order, configuration values bound,
    identical subtrees once) and run in one native call with the GIL released. Signals and the panels of
    time-series, cross-sectional, group and reduction operators are kept in a cache shared by the
    evaluator's threads, keyed by the subtree's canonical form (key order aside, every configuration value
    counts), from the second time a subtree is computed on; at most ``cache_bytes`` of them, least recently
    used first out (0: no cache). A cached panel, and any signal while the cache is on, is read-only. The
    books of recent signals are kept too (BOOK_CACHE_ENTRIES), for graphs that come again.
    """

    _per_node = False  # True: evaluate operator by operator and report from NumPy (the reference path)

    def __init__(self, market: Market | None = None, *, data_dir=None, seed: int = 7,
                 n_instruments: int = 500, n_days: int = 1260, era=None, cost_bps: float = 5.0,
                 in_sample_fraction: float = IN_SAMPLE_FRACTION, cache_bytes: int = DEFAULT_CACHE_BYTES):
        if not 0.0 < in_sample_fraction <= 1.0:
            raise ValueError(f"in_sample_fraction must lie in (0, 1], got {in_sample_fraction!r}")
        if not cost_bps >= 0:
            raise ValueError(f"cost_bps must be non-negative, got {cost_bps!r}")
        if isinstance(cache_bytes, bool) or not isinstance(cache_bytes, int) or cache_bytes < 0:
            raise ValueError(f"cache_bytes must be a non-negative integer, got {cache_bytes!r}")
        self.market = market if market is not None else load_market(data_dir, n_instruments, n_days, seed)
        self.seed = seed
        self.era = era if era is not None else LocalEraConfig()
        self.vocabulary = build_vocabulary(self.market, seed)
        self.registry = FunctionRegistry(self)
        self.cost = cost_bps * 1e-4
        T = self.market.shape[0]
        self.in_sample_days = max(2, int(T * in_sample_fraction))
        self._features: dict = {}
        self._feature_lock = threading.Lock()
        self._pool_lock = threading.Lock()
        self._pool_pnls: dict = {}   # (pool id, signal id) -> {column: in-sample daily pnl}
        self._tls = threading.local()
        self._vault = None
        self._reconstruction_era = None
        self._fwd = np.ascontiguousarray(self.market.fwd_returns)
        self._tradable = np.maximum((~np.isnan(self._fwd)).sum(axis=1), 1).astype(np.float64)
        self._engine = _k.Engine(np.asarray(self.market.sector, dtype=np.int64), T, self.market.shape[1],
                                 cache_bytes)
        # The book and statistics of recent signals, for graphs that come again: (root key, normalization,
        # decay, truncation) -> what the native backtest returned. Bounded by count: each holds two daily
        # series, so the bound costs at most BOOK_CACHE_ENTRIES x 2 x days x 8 bytes.
        self._books: collections.OrderedDict = collections.OrderedDict()
        self._book_lock = threading.Lock()
        self._book_limit = BOOK_CACHE_ENTRIES if cache_bytes else 0

    # ----- era key material -------------------------------------------------------------------------
    def initialize_era_vault(self, shuffle_blob: bytes, wallet_secret: bytes, era_id: int) -> None:
        """Keep the era's key material (60-byte shuffle seed, 32-byte wallet secret) for this era."""
        if not isinstance(shuffle_blob, (bytes, bytearray)) or len(shuffle_blob) != 60:
            raise ValueError("shuffle_blob must be 60 bytes")
        if not isinstance(wallet_secret, (bytes, bytearray)) or len(wallet_secret) != 32:
            raise ValueError("invalid credentials: wallet_secret must be 32 bytes")
        if era_id != getattr(self.era, "era_id", None):
            raise ValueError(f"era mismatch: vault for era {era_id!r}, evaluator is on era "
                             f"{getattr(self.era, 'era_id', None)!r}")
        key = hashlib.blake2b(bytes(shuffle_blob), key=bytes(wallet_secret), digest_size=32).digest()
        if self._vault is not None:
            raise RuntimeError(f"vault already initialized for era {self._vault[0]!r}")
        self._vault = (era_id, key)

    def init_reconstruction(self, shuffle_blob: bytes, wallet_secret: bytes, era_id: int) -> None:
        """Confirm that the key material matches the vault. The local market needs no reconstruction of its
        own, so evaluation does not wait for this step."""
        if self._vault is None:
            raise RuntimeError("init_reconstruction before initialize_era_vault")
        key = hashlib.blake2b(bytes(shuffle_blob), key=bytes(wallet_secret), digest_size=32).digest()
        if (era_id, key) != self._vault:
            raise ValueError("invalid credentials: key material does not match the era vault")
        self._reconstruction_era = era_id

    # ----- features and expressions -----------------------------------------------------------------
    def feature_name(self, canonical: str) -> str:
        """The vocabulary (obfuscated) name of a canonical feature."""
        if canonical not in FEATURE_RECIPES:
            raise KeyError(f"unknown feature {canonical!r}")
        return obfuscated_name(canonical, self.seed)

    def _feature(self, name) -> np.ndarray:
        canonical = self.vocabulary.feature_to_canonical.get(name, name)
        if canonical not in FEATURE_RECIPES:
            raise ValueError(f"unknown feature {name!r}")
        arr = self._features.get(canonical)
        if arr is None:
            with self._feature_lock:
                arr = self._features.get(canonical)
                if arr is None:
                    arr = feature_array(self.market, canonical)
                    arr.setflags(write=False)
                    self._features[canonical] = arr
        return arr

    def _check_graph(self, graph) -> None:
        limit = getattr(self.era, "max_node_count", None)
        count = [0]

        def walk(node, depth):
            if not isinstance(node, dict) or not node or "type" not in node or not set(node) <= _GRAPH_KEYS:
                raise ValueError(f"expression node must be a map with 'type' and optional 'node', "
                                 f"'children'; got {node!r:.200}")
            count[0] += 1
            for child in node.get("children") or ():
                walk(child, depth + 1)

        walk(graph, 1)
        if isinstance(limit, int) and count[0] > limit:
            raise ValueError(f"expression has {count[0]} nodes, above the era's max_node_count {limit}")

    def _compile(self, graph):
        """The plan of a checked graph: its operators in post-order, the panels its leaves read, and the
        canonical key of its root. A feature graph has no operator: (None, feature panel, key)."""
        nodes, leaves, index, leaf_index = [], [], {}, {}

        def leaf(key, panel_of):
            i = leaf_index.get(key)
            if i is None:
                leaves.append(panel_of())
                i = leaf_index[key] = len(leaves) - 1
            return -1 - i

        def visit(node):
            typ = node["type"]
            if typ == "feature":
                name = node.get("node")
                panel = self._feature(name)
                key = "@" + self.vocabulary.feature_to_canonical.get(name, name)
                return leaf(key, lambda: panel), key
            info, data, config = self._check_node(node)
            inputs, keys = [], []
            for child in data:
                ref, key = visit(child)
                inputs.append(ref)
                keys.append(key)
            params = {p[0]: config.get(p[0], p[2]) for p in info.config}
            kind, op = info.op.split(":")
            window, threshold = 0, 0.0
            if kind in ("ts", "ts2"):
                window = int(params.get("window", params.get("lag")))
                bound = str(window)
            elif kind == "filter":
                threshold = float(params["quantile"] if op == "liquid" else params["min_price"])
                inputs.append(leaf("#" + op, self._liquidity_rank if op == "liquid" else self._close))
                bound = repr(threshold)
            else:
                bound = ""
            key = f"{info.op}[{bound}]({','.join(keys)})"
            ref = index.get(key)
            if ref is None:
                nodes.append((kind, op, window, threshold, inputs, key))
                ref = index[key] = len(nodes) - 1
            return ref, key

        ref, key = visit(graph)
        if ref < 0:
            return None, leaves[-1 - ref], key
        return nodes, leaves, key

    def _close(self) -> np.ndarray:
        return np.ascontiguousarray(self.market.fields["close"], dtype=np.float64)

    def _check_node(self, node):
        """A function node's entry, data children and configuration values, or ValueError."""
        typ = node["type"]
        if typ in _CONFIG_TYPES:
            raise ValueError(f"a {typ} constant can only be a configuration child, got {node!r}")
        if typ not in _FUNCTION_TYPES:
            raise ValueError(f"unknown node type {typ!r}")
        name = node.get("node")
        info = FUNCTIONS.get(name)
        if info is None:
            raise ValueError(f"unknown function {name!r}")
        if info.kind != typ:
            raise ValueError(f"function {name!r} is a {info.kind}, not a {typ}")
        children = node.get("children") or []
        if not isinstance(children, list):
            raise ValueError(f"children of {name!r} must be a list")
        n_data = len(info.data_inputs)
        data, configs = children[:n_data], children[n_data:]
        if len(data) < n_data or any(c.get("type") in _CONFIG_TYPES for c in data):
            raise ValueError(f"{name!r} takes {n_data} data input(s) before its configuration values")
        if len(configs) > len(info.config):
            raise ValueError(f"{name!r} takes at most {len(info.config)} configuration value(s), "
                             f"got {len(configs)}")
        config = {}
        for leaf, (pname, ptype, _default, lo, hi) in zip(configs, info.config):
            value = leaf.get("node")
            want = _CONFIG_TYPES.get(leaf.get("type"))
            if leaf.get("type") != ptype or isinstance(value, bool) != (ptype == "bool") or not isinstance(value, want):
                if not (ptype == "float" and isinstance(value, int) and not isinstance(value, bool)):
                    raise ValueError(f"{name!r}: {pname} must be a {ptype} leaf, got {leaf!r}")
            if lo is not None and not lo <= value <= hi:
                raise ValueError(f"{name!r}: {pname}={value!r} outside [{lo}, {hi}]")
            config[pname] = value
        return info, data, config

    def _eval(self, node) -> np.ndarray:
        """A graph's signal operator by operator, each on whole panels (the path the plans replace; kept as
        their reference)."""
        if node["type"] == "feature":
            return self._feature(node.get("node"))
        info, data, config = self._check_node(node)
        return self._apply(info, [self._eval(c) for c in data], config)

    def _signal(self, graph):
        """The graph's signal and the canonical key of its root (None on the per-operator path)."""
        if self._per_node:
            return self._eval(graph), None
        nodes, leaves, key = self._compile(graph)
        if nodes is None:
            return leaves, key
        return self._engine.signal(nodes, leaves), key

    def cache_info(self) -> dict:
        """The subtree cache: hits, misses, evictions, bytes held, entries, max_bytes, and hit_rate (hits
        over lookups; 0 before any)."""
        info = self._engine.cache_info()
        lookups = info["hits"] + info["misses"]
        info["hit_rate"] = info["hits"] / lookups if lookups else 0.0
        return info

    def cache_clear(self) -> None:
        """Drop every cached panel and book (the hit and miss counts stay)."""
        self._engine.cache_clear()
        with self._book_lock:
            self._books.clear()

    def _apply(self, info: FunctionInfo, inputs: list, config: dict) -> np.ndarray:
        """Compute one function on its input panels, configuration values defaulting to the declared ones."""
        if len(inputs) != len(info.data_inputs):
            raise ValueError(f"{info.name!r} takes {len(info.data_inputs)} input(s), got {len(inputs)}")
        params = {p[0]: config.get(p[0], p[2]) for p in info.config}
        kind, op = info.op.split(":")
        if kind == "ts":
            return _k.ts(op, inputs[0], int(params.get("window", params.get("lag"))))
        if kind == "ts2":
            return _k.ts2(op, inputs[0], inputs[1], int(params["window"]))
        if kind == "cs":
            return _k.cs(op, inputs[0])
        if kind == "unary":
            return _k.unary(op, inputs[0])
        if kind == "binary":
            return _k.binary(op, inputs[0], inputs[1])
        x = inputs[0]
        if kind == "group":
            out = np.full_like(x, np.nan)
            sector = self.market.sector
            for s in np.unique(sector):
                cols = sector == s
                out[:, cols] = _k.cs("demean", np.ascontiguousarray(x[:, cols]))
            return out
        if kind == "filter":
            if op == "liquid":
                keep = self._liquidity_rank() >= params["quantile"]
            else:
                keep = self.market.fields["close"] >= params["min_price"]
            return np.where(keep, x, np.nan)
        if kind == "reduce":
            with np.errstate(all="ignore"), _quiet_nan_warnings():
                agg = {"mean": np.nanmean, "median": np.nanmedian, "std": np.nanstd}[op](x, axis=1)
            return np.where(np.isnan(x), np.nan, agg[:, None])
        raise ValueError(f"function {info.name!r} has no implementation")  # pragma: no cover

    def _liquidity_rank(self) -> np.ndarray:
        rank = self._features.get("__liquidity_rank")
        if rank is None:
            rank = _k.cs("rank", self._feature("dollar_volume"))
            with self._feature_lock:
                self._features["__liquidity_rank"] = rank
        return rank

    def _illiquid_flag(self) -> np.ndarray:
        """True where an instrument is in the least liquid fifth of its day (by dollar volume)."""
        flag = self._features.get("__illiquid")
        if flag is None:
            flag = self._liquidity_rank() < 0.2
            flag.setflags(write=False)  # shared by every thread's backtests
            with self._feature_lock:
                self._features["__illiquid"] = flag
        return flag

    def _check_universe(self, universe_id) -> None:
        own = getattr(self.era, "universe_id", None)
        if universe_id is not None and universe_id != own:
            raise ValueError(f"universe {universe_id!r} is not this market's universe {own!r}")

    def evaluate_expression(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        """Check the graph against the vocabulary and compute its raw signal, kept for this thread's
        following ``run_backtest``. Returns the signal panel."""
        self._check_universe(universe_id)
        self._check_graph(expr_graph)
        signal, self._tls.root = self._signal(expr_graph)
        self._tls.key = _graph_key(expr_graph)
        self._tls.signal = signal
        return signal

    # ----- the backtest -----------------------------------------------------------------------------
    def _metaparameters(self, metaparameters, transform_pipeline) -> dict:
        chosen = dict(DEFAULT_METAPARAMETERS)
        stages = transform_pipeline if transform_pipeline is not None else getattr(self.era, "transform_pipeline", None)
        for stage in stages or ():
            name = stage.get("name") if isinstance(stage, dict) else getattr(stage, "name", None)
            default = stage.get("default") if isinstance(stage, dict) else getattr(stage, "default", None)
            if name in chosen and default is not None:
                chosen[name] = default
        if metaparameters is not None:
            if not isinstance(metaparameters, dict):
                raise TypeError(f"metaparameters must be a dict, got {type(metaparameters).__name__}")
            for name in chosen:
                if metaparameters.get(name) is not None:
                    chosen[name] = metaparameters[name]
        try:
            chosen["decay"] = int(chosen["decay"])
            chosen["truncation"] = float(chosen["truncation"])
        except (TypeError, ValueError):
            raise ValueError(f"decay must be an integer and truncation a number, got {chosen!r}") from None
        return chosen

    def pnl_series(self, signal: np.ndarray, metaparameters=None, transform_pipeline=None) -> dict:
        """Book and daily series of a raw signal, in-sample and held out."""
        meta = self._metaparameters(metaparameters, transform_pipeline)
        pnl, traded, longs, shorts, net, abs_sum, max_share, held, illiquid = _k.book_series(
            signal, self._fwd, str(meta["normalization"]), meta["decay"], meta["truncation"],
            self._illiquid_flag())
        return {"gross_returns": pnl, "net_returns": pnl - self.cost * traded,
                "traded": traded, "longs": longs, "shorts": shorts, "net": net, "abs_sum": abs_sum,
                "max_share": max_share, "held": held, "illiquid": illiquid, "meta": meta}

    def run_backtest(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        """Backtest the graph (reusing this thread's signal from ``evaluate_expression``) and report."""
        self._check_universe(universe_id)
        signal = getattr(self._tls, "signal", None)
        if signal is None or getattr(self._tls, "key", None) != _graph_key(expr_graph):
            signal = self.evaluate_expression(expr_graph)
        if self._per_node:
            s = self.pnl_series(signal, metaparameters, transform_pipeline)
            stats = self._stats_from_series(s)
            self._tls.pnl = {c: s[c][: self.in_sample_days].copy() for c in PNL_COLUMNS}
            return stats
        meta = self._metaparameters(metaparameters, transform_pipeline)
        n = self.in_sample_days
        norm = str(meta["normalization"])
        root = getattr(self._tls, "root", None)
        key = (root, norm, meta["decay"], meta["truncation"]) if root is not None and self._book_limit else None
        with self._book_lock:
            found = self._books.get(key) if key is not None else None
            if found is not None:
                self._books.move_to_end(key)
        if found is None:
            found = _k.backtest(signal, self._fwd, norm, meta["decay"], meta["truncation"],
                                self._illiquid_flag(), self._tradable, n, self.cost)
            for series in found[:2]:
                series.setflags(write=False)
            if key is not None:
                with self._book_lock:
                    self._books[key] = found
                    while len(self._books) > self._book_limit:
                        self._books.popitem(last=False)
        gross, net, per_column, book = found
        pnl = {"gross_returns": gross[:n], "net_returns": net[:n]}
        self._tls.pnl = pnl
        return self._stats(pnl, dict(per_column), book, meta)

    def _stats(self, pnl: dict, per_column: dict, book: dict, meta: dict) -> LocalBacktestStats:
        """The report of a backtest from its in-sample pnl, per-column metrics and book figures."""
        primary_col = _primary_column(self.era)
        if primary_col not in PNL_COLUMNS:
            primary_col = PNL_COLUMNS[0]
        primary = {k: per_column[f"{primary_col}_{k}"] for k in
                   ("sharpe", "fitness", "returns", "drawdown", "turnover", "margin", "quality_score")}
        gross = pnl["gross_returns"]
        pool = _era_pool(self.era)
        pool_id = pool.get("signal_pool_id") if pool else None
        mi_col = pool.get("mi_pnl_column", PNL_COLUMNS[0]) if pool else PNL_COLUMNS[0]
        if mi_col not in PNL_COLUMNS:
            mi_col = PNL_COLUMNS[0]
        correlation = 0.0
        others = self._pool_pnl_list(pool_id, "gross_returns")
        if others and gross.std() > 0:
            for other in others:
                if other.std() > 0:
                    correlation = max(correlation, abs(float(np.corrcoef(gross, other)[0, 1])))
        is_pnl_mi = pnl_information(pnl[mi_col], self._pool_pnl_list(pool_id, mi_col))
        rules = [r for r in (getattr(self.era, "column_threshold_rules", None) or []) if isinstance(r, dict)]
        passed = all(per_column.get(f"{r.get('column', 'gross_returns')}_{r.get('stat', 'sharpe')}", 0.0)
                     >= r.get("min", -math.inf) for r in rules)
        any_book = book["any_book"]
        coverage, illiquid_share, stability = book["coverage"], book["illiquid_share"], book["positive_year_fraction"]
        failure_reason = failure_detail = None
        if not any_book:
            failure_reason, failure_detail = "empty_book", "the signal never formed a book in sample"
        return LocalBacktestStats(
            sharpe=primary["sharpe"], fitness=primary["fitness"], returns=primary["returns"],
            drawdown=primary["drawdown"], turnover=primary["turnover"], margin=primary["margin"],
            long_count=book["long_count"], short_count=book["short_count"],
            delta_exposure=book["delta_exposure"], max_weight=book["max_weight"],
            abs_weight_sum_mean=book["abs_weight_sum_mean"],
            quality_score=primary["quality_score"], per_column_stats=per_column,
            correlation=correlation, is_correlation=correlation, is_pnl_mi=is_pnl_mi,
            liquidity_metrics={"illiquid_weight_share": {"value": illiquid_share, "max": 0.3,
                                                         "passed": illiquid_share <= 0.3}},
            weight_quality_metrics={"coverage": {"value": coverage, "min": 0.3,
                                                 "passed": coverage is not None and coverage >= 0.3}},
            custom_stats={"positive_year_fraction": {"value": stability, "min": 0.5,
                                                     "passed": stability >= 0.5}},
            passed=passed and any_book, factor_pnl=gross.tolist(),
            held_out_sharpe=book["held_out_sharpe"], metaparameters=meta,
            failure_reason=failure_reason, failure_detail=failure_detail)

    def _pool_pnl_list(self, pool_id, column, signal_ids=None) -> list:
        with self._pool_lock:
            if signal_ids is None:
                return [v[column] for (p, _), v in self._pool_pnls.items() if p == pool_id]
            out = []
            for sid in signal_ids:
                entry = self._pool_pnls.get((pool_id, sid))
                if entry is None:
                    raise ValueError(f"signal {sid!r} is not in pool {pool_id!r} of this evaluator")
                out.append(entry[column])
            return out

    def _stats_from_series(self, s: dict) -> LocalBacktestStats:
        n = self.in_sample_days
        traded = s["traded"][:n]
        per_column = {}
        for col in PNL_COLUMNS:
            for k, v in column_metrics(s[col][:n], traded).items():
                per_column[f"{col}_{k}"] = v
        abs_sum = s["abs_sum"][:n]
        days = abs_sum.size
        gross = s["gross_returns"][:n]
        # Rule results: coverage of the book, liquidity of its weights, stability of its pnl.
        any_book = bool((abs_sum > 0).any())
        years = [gross[i: i + TRADING_DAYS] for i in range(0, n, TRADING_DAYS) if n - i >= TRADING_DAYS // 2]
        book = {
            "long_count": float(s["longs"][:n].sum()) / days, "short_count": float(s["shorts"][:n].sum()) / days,
            "delta_exposure": float(np.abs(s["net"][:n]).sum()) / days,
            "max_weight": float(s["max_share"][:n].max()), "abs_weight_sum_mean": float(abs_sum.sum()) / days,
            "any_book": any_book,
            "coverage": float((s["held"][:n] / self._tradable[:n]).sum()) / days if any_book else None,
            "illiquid_share": float(s["illiquid"][:n].sum() / abs_sum.sum()) if any_book else 0.0,
            "positive_year_fraction": sum(1 for y in years if y.sum() > 0) / len(years) if years else 0.0,
            "held_out_sharpe": _sharpe(s["gross_returns"][n:-1]),
        }
        return self._stats({col: s[col][:n] for col in PNL_COLUMNS}, per_column, book, s["meta"])

    # ----- the pool ---------------------------------------------------------------------------------
    def add_found_signal(self, signal_id: str, expr_graph, metaparameters=None, pool_id=None) -> None:
        """Backtest a signal and enter it in a pool of the era (its ``found_signal_ids`` too)."""
        if not isinstance(signal_id, str) or not signal_id:
            raise ValueError(f"signal_id must be a non-empty string, got {signal_id!r}")
        pool = _era_pool(self.era, pool_id)
        if pool is None:
            raise ValueError(f"the era has no signal pool {pool_id!r}")
        self._check_graph(expr_graph)
        s = self.pnl_series(self._signal(expr_graph)[0], metaparameters)
        entry = {c: s[c][: self.in_sample_days].copy() for c in PNL_COLUMNS}
        with self._pool_lock:
            self._pool_pnls[(pool["signal_pool_id"], signal_id)] = entry
            ids = pool.setdefault("found_signal_ids", [])
            if signal_id not in ids:
                ids.append(signal_id)

    def compute_mi_per_pool(self, pool, pnl_column, pool_signals, threshold):
        """Information of this thread's last backtested pnl beyond the pool's signals: (score, passed)."""
        last = getattr(self._tls, "pnl", None)
        if last is None:
            raise ValueError("no backtest has run on this thread")
        if pnl_column not in last:
            raise ValueError(f"unknown pnl column {pnl_column!r}; columns: {list(last)}")
        others = self._pool_pnl_list(pool, pnl_column, list(pool_signals or []))
        score = pnl_information(last[pnl_column], others)
        return score, bool(score >= threshold)


class _quiet_nan_warnings:
    def __enter__(self):
        import warnings
        self._cm = warnings.catch_warnings()
        self._cm.__enter__()
        warnings.simplefilter("ignore", RuntimeWarning)

    def __exit__(self, *exc):
        return self._cm.__exit__(*exc)


def _graph_key(graph) -> str:
    return json.dumps(graph, sort_keys=True, default=repr)


def _primary_column(era) -> str:
    cols = era.get("evaluation_pnl_columns") if isinstance(era, dict) else getattr(era, "evaluation_pnl_columns", None)
    return cols[0] if isinstance(cols, (list, tuple)) and cols and isinstance(cols[0], str) else PNL_COLUMNS[0]


def _era_pool(era, pool_id=None):
    pools = era.get("signal_pools") if isinstance(era, dict) else getattr(era, "signal_pools", None)
    for p in pools or ():
        if isinstance(p, dict) and (pool_id is None or pool_id in (p.get("signal_pool_id"), p.get("name"))):
            return p
    return None

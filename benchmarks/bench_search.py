"""Evaluations per second of a whole search, at n_jobs 1 and 2, with a backtester that spends a fixed time
per call without holding the GIL (a 2 ms sleep, as a native kernel would compute). Compared with calling
the backtester in a plain loop, this gives the engine's own cost per expression (worker loop, sandbox,
SearchContext.evaluate, recording) and the parallel speed-up.

Targets: n_jobs=2 at least 1.7 times the rate of n_jobs=1; the engine's cost under 10% of a plain loop.
The rates with a real SearchTracker on disk are printed too: there the store's own write is included."""
import json
import os
import tempfile
import threading
import time
from types import SimpleNamespace

import quillmarsh.search_templates as st
from quillmarsh.search_tracking import BacktestStats, SearchTracker

WORK_SECONDS = 0.002
WINDOW_SECONDS = 3.0
WARMUP_SECONDS = 0.5
THRESHOLDS = {"sharpe_min": 0.5, "turnover_max": 1.0, "delta_exposure_max": 0.1, "max_weight_max": 0.05,
              "correlation_max": 0.7, "mi_threshold": 0.1}
ERA = dict(era_id=4, max_depth=5, thresholds=THRESHOLDS, max_expression_generation_seconds=5.0,
           evaluation_pnl_columns=["gross_returns"], valid_universe_id="U1",
           signal_pools=[{"signal_pool_id": "pool-a", "mi_pnl_column": "gross_returns", "found_signal_ids": []}],
           transform_pipeline=[{"name": "decay", "options": [0, 3], "default": 3}])
VOCAB = {"functions": [{"name": "cs_rank"}], "features": [{"name": "f1"}]}
GRAPH = {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": "f1"}]}
# Rejected at the sharpe floor: every expression is recorded, none is queued for submission.
STATS = SimpleNamespace(sharpe=0.1, fitness=1.1, returns=0.12, drawdown=0.04, turnover=0.3, margin=0.001,
                        long_count=200, short_count=190, delta_exposure=0.01, max_weight=0.01,
                        abs_weight_sum_mean=1.0, correlation=0.2, is_pnl_mi=0.4, passed=False,
                        factor_pnl=[0.1] * 16, per_column_stats={"gross_returns_sharpe": 0.1})


class Backtester:
    """About 2 ms per expression without the GIL, split over the two calls of an evaluation."""

    def evaluate_expression(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        time.sleep(WORK_SECONDS / 4)

    def run_backtest(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        time.sleep(WORK_SECONDS * 3 / 4)
        return STATS


class MemoryTracker:
    """A tracker without a store, so that only the engine's cost is measured."""

    def __init__(self):
        self.count = 0
        self.lock = threading.Lock()

    def get_search_stats(self):
        return None

    def record_signal_evaluation(self, *args, **kwargs):
        with self.lock:
            self.count += 1
            return "eval-%d" % self.count

    def set_search_active(self, flag):
        pass


class EraConfig:
    def __init__(self, fields):
        self._data = dict(fields)
        for name, value in fields.items():
            setattr(self, name, value)


class Obfuscation:
    def get_vocabulary(self):
        return json.loads(json.dumps(VOCAB))


class Auth:
    wallet_secret = b"\x00" * 32


def endless(ctx):
    while True:
        yield GRAPH


def plain_loop_rate(threads=1):
    bt = Backtester()
    done = [0] * threads
    stop = threading.Event()

    def run(i):
        while not stop.is_set():
            bt.evaluate_expression(GRAPH)
            bt.run_backtest(GRAPH)
            done[i] += 1
    workers = [threading.Thread(target=run, args=(i,)) for i in range(threads)]
    for w in workers:
        w.start()
    time.sleep(WARMUP_SECONDS)
    start, t0 = sum(done), time.monotonic()
    time.sleep(WINDOW_SECONDS)
    rate = (sum(done) - start) / (time.monotonic() - t0)
    stop.set()
    for w in workers:
        w.join(5.0)
    return rate


def search_rate(n_jobs, tracker, data_dir):
    handle = st._SearchHandleImpl(template=endless, n_jobs=n_jobs, tracker=tracker, sync_mgr=None, bt=Backtester(),
                                  obf=Obfuscation(), era_cfg=EraConfig(ERA), auth_mock=Auth(), data_dir=data_dir)
    try:
        time.sleep(WARMUP_SECONDS)
        start, t0 = handle._total_evaluated, time.monotonic()
        time.sleep(WINDOW_SECONDS)
        return (handle._total_evaluated - start) / (time.monotonic() - t0)
    finally:
        handle.stop(join_timeout=5.0)


class NullContext:
    """A context whose evaluate does nothing: what is left is the worker loop and the sandbox."""

    def __init__(self, **kwargs):
        pass

    def evaluate(self, expr_graph):
        pass


def loop_cost_us(data_dir):
    real = st.SearchContext
    st.SearchContext = NullContext
    try:
        return 1e6 / search_rate(1, MemoryTracker(), data_dir)
    finally:
        st.SearchContext = real


def evaluate_cost_us(n=2000):
    ctx = st.SearchContext(VOCAB, "U1", {"decay": 3}, 4, MemoryTracker(), None, InstantBacktester(), None,
                           EraConfig(ERA))
    t0 = time.perf_counter()
    for _ in range(n):
        ctx.evaluate(GRAPH)
    return (time.perf_counter() - t0) / n * 1e6


class InstantBacktester:
    def evaluate_expression(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        return None

    def run_backtest(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        return STATS


def main():
    st._BacktestStats = BacktestStats
    with tempfile.TemporaryDirectory() as data_dir:
        plain = plain_loop_rate()
        print("backtester in a plain loop:         %8.1f evaluations/s" % plain)
        rates = {}
        for n_jobs in (1, 2):
            rates[n_jobs] = search_rate(n_jobs, MemoryTracker(), data_dir)
            print("search, n_jobs=%d, in-memory tracker: %8.1f evaluations/s" % (n_jobs, rates[n_jobs]))
        cost = (1.0 / rates[1] - 1.0 / plain) * 1e6
        print("engine's own cost per expression:   %8.1f us (%.1f%% of a plain loop; target < 10%%)"
              % (cost, 100.0 * (plain / rates[1] - 1.0)))
        print("speed-up of n_jobs=2 over n_jobs=1:  %8.2f x (target >= 1.7)" % (rates[2] / rates[1]))
        print("  of which worker loop and sandbox:  %8.1f us per expression (no-op context)" % loop_cost_us(data_dir))
        print("  of which SearchContext.evaluate:   %8.1f us per expression (instant backtester)"
              % evaluate_cost_us())
        for n_jobs in (1, 2):
            tracker = SearchTracker(os.path.join(data_dir, "store-%d" % n_jobs))
            try:
                rate = search_rate(n_jobs, tracker, data_dir)
            finally:
                tracker.close()
            print("search, n_jobs=%d, SearchTracker:     %8.1f evaluations/s" % (n_jobs, rate))


if __name__ == "__main__":
    main()

"""Cost of SearchContext.evaluate itself: a backtester that answers at once with a fixed statistics
object, into a real SearchTracker on disk. Prints the median microseconds per rejected expression (record)
and per passed expression (record + enqueue). Targets: < 150 us rejected, < 400 us passed."""
import queue
import statistics
import tempfile
import threading
import time
from types import SimpleNamespace

import quillmarsh.search_templates as st
from quillmarsh.search_tracking import BacktestStats, SearchTracker

THRESHOLDS = {"sharpe_min": 0.5, "turnover_max": 1.0, "delta_exposure_max": 0.1, "max_weight_max": 0.05,
              "correlation_max": 0.7, "mi_threshold": 0.1}
ERA = {"era_id": 4, "max_expression_generation_seconds": 5.0, "thresholds": THRESHOLDS,
       "evaluation_pnl_columns": ["gross_returns"],
       "signal_pools": [{"signal_pool_id": "pool-a", "mi_pnl_column": "gross_returns", "found_signal_ids": []}]}
VOCAB = {"functions": [{"name": f"fn_{i}"} for i in range(60)], "features": [{"name": f"f_{i}"} for i in range(200)]}
GRAPH = {"type": "rotation", "node": "fn_3", "children": [
    {"type": "rotation", "node": "fn_7", "children": [{"type": "feature", "node": "f_12"}]},
    {"type": "config", "node": 20}]}


def stats(**kw):
    values = dict(sharpe=1.5, fitness=1.1, returns=0.12, drawdown=0.04, turnover=0.3, margin=0.001,
                  long_count=200, short_count=190, delta_exposure=0.01, max_weight=0.01, abs_weight_sum_mean=1.0,
                  correlation=0.2, is_pnl_mi=0.4, passed=True, factor_pnl=[0.1] * 16,
                  per_column_stats={"gross_returns_sharpe": 1.5, "gross_returns_fitness": 1.1})
    values.update(kw)
    return SimpleNamespace(**values)


class Backtester:
    def __init__(self, result):
        self.result = result

    def evaluate_expression(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        return None

    def run_backtest(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        return self.result


def measure(ctx, n):
    samples = []
    for _ in range(n):
        t0 = time.perf_counter()
        ctx.evaluate(GRAPH)
        samples.append(time.perf_counter() - t0)
    return statistics.median(samples) * 1e6


def main():
    st._BacktestStats = BacktestStats
    with tempfile.TemporaryDirectory() as data_dir:
        tracker = SearchTracker(data_dir)
        lock = threading.RLock()
        common = dict(tracker_write_lock=lock, submission_queue=queue.Queue(), submission_wakeup=threading.Event(),
                      submission_owner="bench")
        rejected = st.SearchContext(VOCAB, "U1", {"decay": 3}, 4, tracker, None, Backtester(stats(sharpe=0.1)),
                                    None, ERA, **common)
        passed = st.SearchContext(VOCAB, "U1", {"decay": 3}, 4, tracker, None, Backtester(stats()), None, ERA,
                                  **common)
        measure(rejected, 200)  # warm up the store and the caches
        r = measure(rejected, 2000)
        p = measure(passed, 2000)
        tracker.close()
    print(f"evaluate, rejected expression: median {r:8.1f} us   (target < 150 us)")
    print(f"evaluate, passed expression:   median {p:8.1f} us   (target < 400 us, record + enqueue)")


if __name__ == "__main__":
    main()

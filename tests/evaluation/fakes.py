"""Fakes for driving SearchContext.evaluate: a backtester with scripted statistics and a recording tracker."""
import threading
import time
from types import SimpleNamespace

THRESHOLDS = {"sharpe_min": 0.5, "turnover_max": 1.0, "delta_exposure_max": 0.1, "max_weight_max": 0.05,
              "correlation_max": 0.7, "mi_threshold": 0.1}

ERA = {"era_id": 4, "max_expression_generation_seconds": 5.0, "thresholds": THRESHOLDS,
       "evaluation_pnl_columns": ["gross_returns"],
       "signal_pools": [{"signal_pool_id": "pool-a", "mi_pnl_column": "gross_returns", "found_signal_ids": []}]}

VOCAB = {"functions": [{"name": "ts_mean_5"}, {"name": "cs_rank"}], "features": [{"name": "f1"}]}

GRAPH = {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": "f1"}]}


def good_stats(**overrides):
    values = dict(sharpe=1.5, fitness=1.1, returns=0.12, drawdown=0.04, turnover=0.3, margin=0.001,
                  long_count=200, short_count=190, delta_exposure=0.01, max_weight=0.01, abs_weight_sum_mean=1.0,
                  correlation=0.2, is_pnl_mi=0.4, passed=True, factor_pnl=[0.1, -0.05],
                  per_column_stats={"gross_returns_sharpe": 1.5})
    values.update(overrides)
    return SimpleNamespace(**values)


_GOOD = object()


class FakeBacktester:
    def __init__(self, stats=_GOOD, evaluate_error=None, backtest_error=None, delay=0.0, on_backtest=None):
        self.stats = good_stats() if stats is _GOOD else stats
        self.evaluate_error, self.backtest_error, self.delay = evaluate_error, backtest_error, delay
        self.on_backtest = on_backtest
        self.calls = []

    def evaluate_expression(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        self.calls.append(("evaluate_expression", expr_graph, universe_id))
        if self.delay:
            time.sleep(self.delay)
        if self.evaluate_error:
            raise self.evaluate_error

    def run_backtest(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        self.calls.append(("run_backtest", expr_graph, universe_id))
        if self.on_backtest:
            self.on_backtest()
        if self.backtest_error:
            raise self.backtest_error
        return self.stats


class RecordingTracker:
    """A tracker with no SQL store, shared by the evaluation and engine tests: records evaluations, enqueued
    submissions and the search-active flag; `get_search_stats` answers as given. Workers may share it."""

    def __init__(self, stats=None, record_error=None):
        self.records, self.enqueued, self.search_active = [], [], []
        self._stats = stats
        self.record_error = record_error
        self._lock = threading.Lock()

    def get_search_stats(self):
        return self._stats

    def record_signal_evaluation(self, graph, stats, era_id, passed, universe_id, metaparams, **kwargs):
        if self.record_error:
            raise self.record_error
        with self._lock:
            self.records.append(dict(graph=graph, stats=stats, era_id=era_id, passed=passed,
                                     universe_id=universe_id, metaparams=metaparams, **kwargs))
            return f"eval-{len(self.records)}"

    def enqueue_submission(self, *args):
        self.enqueued.append(args)

    # Without a store, the queues live in the search's memory: nothing to hand out, nothing pending.
    def dequeue_submission(self):
        return None

    def dequeue_retryable(self):
        return None

    def requeue_submission(self, *args):
        self.enqueued.append(args)

    def get_pending_submissions(self):
        return []

    def set_search_active(self, flag):
        self.search_active.append(bool(flag))
